#include "tessel/CVMDKGrainTable.h"

#include "grain/TableStreams.h"
#include "lum/CInvalidArgError.h"
#include "lum/Logging.h"
#include "lum/Numbers.h"

#include <algorithm>

namespace tessel {

CVMDKGrainTable::CVMDKGrainTable(IIOStream* stream, IIOStream::Access access, int64 grainSizeSectors,
                                 int64 posSectors, int64 redundantPosSectors, int64 slotSizeTablePosSectors,
                                 int entryCount)
    : m_stream(stream),
      m_access(access),
      m_grainSizeSectors(grainSizeSectors),
      m_posSectors(posSectors),
      m_redundantPosSectors(redundantPosSectors),
      m_slotSizeTablePosSectors(slotSizeTablePosSectors),
      m_entryCount(entryCount),
      m_entries(entryCount) {
    readTable(*m_stream, m_posSectors, m_entries);
    if (m_slotSizeTablePosSectors >= 1) {
        m_slotSizes.setUsed(entryCount);
        readTable(*m_stream, m_slotSizeTablePosSectors, m_slotSizes);
    }
}

// Nobody saw to the order of this write: the slots must be durable before their entries.
void CVMDKGrainTable::writeInOrder() {
    writeSlotSizesOfNewGrains();
    m_stream->flush();
    writeChangedEntries();
    if (m_slotSizesChanged)
        m_stream->flush();
    flushChangesToStream();
}

CVMDKGrainTable::~CVMDKGrainTable() {
    // The entries have no other chance than this one. A write that fails makes the next flush fail as well,
    // so that only a third attempt finds the way free. The first failure is told in either case.
    bool isTold = false;
    for (int attempt = 0; attempt < 3 && hasUnflushedChanges(); ++attempt) {
        try {
            writeInOrder();
        } catch (const std::exception& error) {
            if (!isTold)
                onExceptionInDestructorIgnored("tessel::CVMDKGrainTable", error, true);
            isTold = true;
        }
    }
}

void CVMDKGrainTable::verifyIndex(const char* method, int64 grainIndex) const {
    if (grainIndex < 0 || grainIndex >= m_entryCount)
        throw CInvalidArgError(method, "Invalid grain index: " + toDecimal(grainIndex),
                               CProps().add("uri", m_stream->getURI().toString(true)));
}

void CVMDKGrainTable::getGrainInfo(int64 grainIndex, int64& grainPosSectors, int64& slotSizeSectors) {
    verifyIndex("CVMDKGrainTable::getGrainInfo", grainIndex);
    grainPosSectors = m_entries[grainIndex];
    if (grainPosSectors == 0)
        slotSizeSectors = 0;
    else
        slotSizeSectors = m_slotSizes.isEmpty() ? m_grainSizeSectors : m_slotSizes[grainIndex];
}

int64 CVMDKGrainTable::findSlotRun(int64 grainIndex, bool& hasSlot) const {
    verifyIndex("CVMDKGrainTable::findSlotRun", grainIndex);
    const uint32* const entries = m_entries.getData();
    const uint32* const first = entries + grainIndex;
    const uint32* const end = entries + m_entryCount;
    hasSlot = *first != 0;
    // Most tables of a large disk are empty from here to the end, which is seen fastest as memory.
    if (!hasSlot && isZeroMemory(first, static_cast<std::size_t>(end - first) * sizeof(uint32)))
        return end - first;
    return std::find_if(first, end, [&](uint32 entry) { return (entry != 0) != hasSlot; }) - first;
}

void CVMDKGrainTable::setGrainInfo(int64 grainIndex, int64 grainPosSectors, int64 slotSizeSectors) {
    static const char* const method = "CVMDKGrainTable::setGrainInfo";
    verifyIndex(method, grainIndex);
    if (m_slotSizes.isEmpty() && slotSizeSectors != m_grainSizeSectors)
        throw CInvalidArgError(method,
                               "Invalid grain slot size - it must equal the grain size (slot size: " +
                                   toDecimal(slotSizeSectors) +
                                   ", grain size: " + toDecimal(m_grainSizeSectors) + ")",
                               CProps().add("uri", m_stream->getURI().toString(true)));
    if (slotSizeSectors < 1)
        throw CInvalidArgError(method, "Invalid grain slot size.",
                               CProps()
                                   .add("uri", m_stream->getURI().toString(true))
                                   .add("slotSizeSectors", slotSizeSectors)
                                   .add("grainSizeSectors", m_grainSizeSectors)
                                   .add("posSectors", grainPosSectors));
    if (m_access != IIOStream::Access_ReadWrite)
        throw CError("Internal error: CVMDKGrainTable::setGrainInfo was called, but the table was not opened "
                     "for writing.");
    rememberStored();
    if (m_entries[grainIndex] != grainPosSectors) {
        m_entries[grainIndex] = static_cast<uint32>(grainPosSectors);
        m_entriesChanged = true;
    }
    if (!m_slotSizes.isEmpty() && m_slotSizes[grainIndex] != slotSizeSectors) {
        m_slotSizes[grainIndex] = static_cast<uint16>(slotSizeSectors);
        m_slotSizesChanged = true;
    }
}

void CVMDKGrainTable::rememberStored() {
    if (m_slotSizes.isEmpty() || hasUnflushedChanges())
        return;
    m_storedEntries = m_entries;
    m_storedSlotSizes = m_slotSizes;
}

void CVMDKGrainTable::writeSlotSizesOfNewGrains() {
    if (!m_slotSizesChanged)
        return;
    TBuffer<uint16> sizes(m_slotSizes);
    bool isWhole = true;
    for (int i = 0; i < m_entryCount; ++i) {
        if (m_storedEntries[i] == 0 || m_storedSlotSizes[i] == sizes[i])
            continue;
        sizes[i] = m_storedSlotSizes[i];
        isWhole = false;
    }
    if (!(sizes == m_storedSlotSizes)) {
        writeTable(*m_stream, m_slotSizeTablePosSectors, sizes);
        m_storedSlotSizes = sizes;
    }
    m_slotSizesChanged = !isWhole;
}

void CVMDKGrainTable::writeChangedEntries() {
    if (!m_entriesChanged)
        return;
    // Before the writes: one that fails may have stored an entry all the same, and a grain that moves
    // again is not new then.
    if (!m_storedEntries.isEmpty())
        m_storedEntries = m_entries;
    writeTable(*m_stream, m_posSectors, m_entries);
    if (m_redundantPosSectors > 0)
        writeTable(*m_stream, m_redundantPosSectors, m_entries);
    m_entriesChanged = false;
}

void CVMDKGrainTable::flushChangesToStream() {
    writeChangedEntries();
    if (m_slotSizesChanged) {
        writeTable(*m_stream, m_slotSizeTablePosSectors, m_slotSizes);
        m_slotSizesChanged = false;
    }
    m_storedEntries = TBuffer<uint32>();
    m_storedSlotSizes = TBuffer<uint16>();
}

} // namespace tessel
