#include "tessel/CVMDKGrainDirectory.h"

#include "grain/TableStreams.h"
#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"
#include "lum/Logging.h"
#include "lum/Numbers.h"
#include "tessel/VMDKMarker.h"

#include <algorithm>

namespace tessel {

namespace {

/// How many tables one miss of the cache reads. A power of 2.
constexpr int64 batchSize = 32;

constexpr int64 entryBytes = 4;
constexpr int64 slotSizeBytes = 2;

/// Directories of more entries are read in parts: 1 MiB, as for an extent of 8 TiB with usual grains.
constexpr int64 largestWholeDirectory = 262144;
constexpr int64 entriesOfPart = 16384;

/// The largest extent whose size in bytes fits a signed 64-bit number.
constexpr int64 maxCapacitySectors = INT64_MAX / vmdkSectorSize;

} // namespace

CVMDKGrainDirectory::CVMDKGrainDirectory(IIOStream* stream, IIOStream::Access access,
                                         int64 directoryPosSectors, int64 redundantDirectoryPosSectors,
                                         int64 capacitySectors, int64 grainSizeSectors, int entriesPerTable,
                                         bool compressed, CVMDKGrainTableCache* cache, int64 overheadSectors)
    : m_stream(stream),
      m_cache(cache),
      m_access(access),
      m_directoryPosSectors(directoryPosSectors),
      m_redundantDirectoryPosSectors(redundantDirectoryPosSectors),
      m_grainSizeSectors(grainSizeSectors),
      m_entriesPerTable(entriesPerTable),
      m_compressed(compressed),
      m_capacitySectors(capacitySectors) {
    verifyNumbers();
    m_grainCount = calcExtentGrainCount(capacitySectors, grainSizeSectors);
    m_tableCount = calcExtentGrainTableCount(capacitySectors, grainSizeSectors, entriesPerTable);
    m_directory.open(stream, m_directoryPosSectors, m_tableCount);
    if (m_redundantDirectoryPosSectors > 0)
        m_redundantDirectory.open(stream, m_redundantDirectoryPosSectors, m_tableCount);
    findSlotSizeDirectory(overheadSectors);
    if (m_slotSizeDirectoryPosSectors > 0)
        m_slotSizeDirectory.open(stream, m_slotSizeDirectoryPosSectors, m_tableCount);
    else if (m_compressed)
        throw CError("Slot size directory not found in compressed VMDK.", String(), -1,
                     CProps().add("uri", uriText()));
}

CVMDKGrainDirectory::~CVMDKGrainDirectory() {
    // Two blocks: tables that cannot be written must leave the cache all the same, or another directory
    // at this address would be given them.
    try {
        if (m_cache->hasUnflushedTables(this))
            flushChangesInOrder();
    } catch (const std::exception& error) {
        onExceptionInDestructorIgnored("tessel::CVMDKGrainDirectory", error, true);
    }
    try {
        m_cache->removeCachedTablesFromDirectory(this);
    } catch (const std::exception& error) {
        onExceptionInDestructorIgnored("tessel::CVMDKGrainDirectory", error, true);
    }
}

String CVMDKGrainDirectory::uriText() const {
    return m_stream->getURI().toString(true);
}

void CVMDKGrainDirectory::verifyNumbers() const {
    const auto verify = [this](const char* name, int64 value, int64 smallest, int64 largest) {
        if (value < smallest || value > largest)
            throw CIOError(CIOError::Code_BadFormat,
                           String("VMDK sparse header has an invalid ") + name + ": " + toDecimal(value) +
                               " (allowed: " + toDecimal(smallest) + " to " + toDecimal(largest) + ").",
                           CProps().add("uri", uriText()).add(name, value));
    };
    verify("grainSize", m_grainSizeSectors, 1, maxGrainSizeSectors);
    verify("grainTableEntryCount", m_entriesPerTable, 1, maxEntriesPerTable);
    verify("capacity", m_capacitySectors, 0, maxCapacitySectors);

    // With these in bounds nothing below overflows: at most 2^54 sectors give 2^56 bytes of directory.
    const int64 tableCount =
        calcExtentGrainTableCount(m_capacitySectors, m_grainSizeSectors, m_entriesPerTable);
    const int64 directoryBytes = tableCount * entryBytes;
    const int64 length = m_stream->getLength();
    const int64 lastPos = length < directoryBytes ? 0 : (length - directoryBytes) / vmdkSectorSize;
    if (lastPos < 1 || directoryBytes > INT32_MAX)
        throw CIOError(CIOError::Code_BadFormat,
                       "VMDK sparse header has an invalid capacity: " + toDecimal(m_capacitySectors) +
                           " (its grain directory of " + toDecimal(directoryBytes) +
                           " bytes does not fit the file of " + toDecimal(length) + " bytes).",
                       CProps().add("uri", uriText()).add("capacity", m_capacitySectors));
    verify("grainDirectoryOffset", m_directoryPosSectors, 1, lastPos);
    if (m_redundantDirectoryPosSectors > 0) {
        verify("redundantGrainDirectoryOffset", m_redundantDirectoryPosSectors, 1, lastPos);
        verifyNoOverlap(m_redundantDirectoryPosSectors, m_directoryPosSectors);
    }
}

// Directories that share sectors are no copies, and would take more memory than the file has bytes.
void CVMDKGrainDirectory::verifyNoOverlap(int64 posSectors, int64 otherPosSectors) const {
    const int64 tableCount =
        calcExtentGrainTableCount(m_capacitySectors, m_grainSizeSectors, m_entriesPerTable);
    const int64 sectors = divideRoundingUp(tableCount * entryBytes, vmdkSectorSize);
    if (posSectors >= otherPosSectors + sectors || otherPosSectors >= posSectors + sectors)
        return;
    throw CIOError(
        CIOError::Code_BadFormat,
        "VMDK grain directories overlap (sectors: " + toDecimal(otherPosSectors) + " and " +
            toDecimal(posSectors) + ", size: " + toDecimal(sectors) + " sectors).",
        CProps().add("uri", uriText()).add("position", otherPosSectors).add("otherPosition", posSectors));
}

int64 CVMDKGrainDirectory::calcExtentGrainCount(int64 capacitySectors, int64 grainSizeSectors) {
    return (capacitySectors + grainSizeSectors - 1) / grainSizeSectors;
}

int64 CVMDKGrainDirectory::calcExtentGrainTableCount(int64 capacitySectors, int64 grainSizeSectors,
                                                     int entriesPerTable) {
    return (calcExtentGrainCount(capacitySectors, grainSizeSectors) + entriesPerTable - 1) / entriesPerTable;
}

// --- Directories ---

void CVMDKGrainDirectory::CEntries::open(IIOStream* stream, int64 posSectors, int64 count) {
    m_stream = stream;
    m_posSectors = posSectors;
    m_count = count;
    load(0);
}

void CVMDKGrainDirectory::CEntries::load(int64 first) {
    const int64 size = m_count <= largestWholeDirectory ? m_count : std::min(entriesOfPart, m_count - first);
    m_part.setUsed(0); // nothing, should the reading fail
    TBuffer<uint32> part(std::move(m_part));
    part.setUsed(size);
    static_assert(entriesOfPart * entryBytes % vmdkSectorSize == 0);
    readTable(*m_stream, m_posSectors + first * entryBytes / vmdkSectorSize, part);
    m_part = std::move(part);
    m_first = first;
}

uint32 CVMDKGrainDirectory::CEntries::at(int64 tableIndex) {
    if (!isPresent())
        return 0;
    if (tableIndex < m_first || tableIndex >= m_first + m_part.getUsed())
        load(m_count <= largestWholeDirectory ? 0 : tableIndex / entriesOfPart * entriesOfPart);
    return m_part[tableIndex - m_first];
}

int64 CVMDKGrainDirectory::CEntries::findNext(int64 tableIndex) {
    while (tableIndex < m_count) {
        if (at(tableIndex) != 0)
            return tableIndex;
        const uint32* const begin = m_part.getData();
        const uint32* const found = std::find_if(begin + (tableIndex - m_first), begin + m_part.getUsed(),
                                                 [](uint32 entry) { return entry != 0; });
        tableIndex = m_first + (found - begin);
    }
    return m_count;
}

// The slot size directory has no place of its own in the header: it stands behind the last grain table,
// announced by a marker.
void CVMDKGrainDirectory::findSlotSizeDirectory(int64 overheadSectors) {
    uint32 markerSector = 0;
    if (m_tableCount >= 1) {
        markerSector = m_directory.at(m_tableCount - 1);
        markerSector = std::max(markerSector, m_redundantDirectory.at(m_tableCount - 1));
        markerSector += static_cast<uint32>(divideRoundingUp(m_entriesPerTable * entryBytes, vmdkSectorSize));
    } else {
        markerSector =
            static_cast<uint32>(std::max(m_redundantDirectoryPosSectors, m_directoryPosSectors) + 1);
    }
    if (overheadSectors >= 0 && markerSector >= overheadSectors)
        return;

    unsigned char sector[vmdkSectorSize];
    m_stream->seek(markerSector * vmdkSectorSize);
    int64 actual = 0;
    if (m_stream->readLax(sector, vmdkSectorSize) != vmdkSectorSize ||
        !isVMDKMarker(sector, MarkerSlotSizeDirectory, &actual))
        return;
    const int64 expected = divideRoundingUp(m_tableCount * entryBytes, vmdkSectorSize);
    if (actual != expected)
        logWarning("Found VMDK marker for lumSlotDirectory, but the slot directory size does not match the "
                   "expected value (actual: " +
                   toDecimal(actual) + ", expected: " + toDecimal(expected) + ", uri: '" + uriText() +
                   "'). Ignoring the slot directory.");
    else
        m_slotSizeDirectoryPosSectors = static_cast<int64>(markerSector) + 1;
    if (m_slotSizeDirectoryPosSectors == 0)
        return;
    if (m_slotSizeDirectoryPosSectors * vmdkSectorSize > m_stream->getLength() - m_tableCount * entryBytes)
        throw CIOError(CIOError::Code_BadFormat,
                       "VMDK slot size directory lies behind the end of the file (sector: " +
                           toDecimal(m_slotSizeDirectoryPosSectors) + ").",
                       CProps().add("uri", uriText()).add("position", m_slotSizeDirectoryPosSectors));
    verifyNoOverlap(m_slotSizeDirectoryPosSectors, m_directoryPosSectors);
    if (m_redundantDirectoryPosSectors > 0)
        verifyNoOverlap(m_slotSizeDirectoryPosSectors, m_redundantDirectoryPosSectors);
}

void CVMDKGrainDirectory::verifyTableIndex(int64 tableIndex) const {
    if (tableIndex < 0 || tableIndex >= m_tableCount)
        throw CInvalidArgError("CVMDKGrainDirectory::getGrainTable",
                               "invalid table index: " + toDecimal(tableIndex),
                               CProps().add("uri", uriText()));
}

void CVMDKGrainDirectory::verifyTablePosition(int64 tableIndex, int64 posSectors, int64 sizeBytes,
                                              int64 streamLength) const {
    if (posSectors >= 1 && posSectors * vmdkSectorSize <= streamLength - sizeBytes)
        return;
    const String problem = posSectors == 0 ? "was never allocated" : "lies behind the end of the file";
    throw CIOError(
        CIOError::Code_BadFormat,
        "VMDK grain table " + toDecimal(tableIndex) + " " + problem + " (sector: " + toDecimal(posSectors) +
            ").",
        CProps().add("uri", uriText()).add("tableIndex", tableIndex).add("tablePosition", posSectors));
}

bool CVMDKGrainDirectory::writesRedundantTable(int64 tableIndex) {
    return m_access == IIOStream::Access_ReadWrite && m_redundantDirectory.at(tableIndex) != 0;
}

bool CVMDKGrainDirectory::canLoadTable(int64 tableIndex, int64 streamLength) {
    const auto fits = [streamLength](int64 posSectors, int64 sizeBytes) {
        return posSectors >= 1 && posSectors * vmdkSectorSize <= streamLength - sizeBytes;
    };
    if (!fits(m_directory.at(tableIndex), m_entriesPerTable * entryBytes))
        return false;
    if (writesRedundantTable(tableIndex) &&
        !fits(m_redundantDirectory.at(tableIndex), m_entriesPerTable * entryBytes))
        return false;
    const uint32 slotSizes = m_slotSizeDirectory.at(tableIndex);
    return slotSizes == 0 ? !m_compressed : fits(slotSizes, m_entriesPerTable * slotSizeBytes);
}

P<CVMDKGrainTable> CVMDKGrainDirectory::loadTable(int64 tableIndex) {
    return new CVMDKGrainTable(m_stream.get(), m_access, m_grainSizeSectors, m_directory.at(tableIndex),
                               m_redundantDirectory.at(tableIndex), m_slotSizeDirectory.at(tableIndex),
                               m_entriesPerTable);
}

// Changed tables that are about to be read again, or to leave the cache, are written first: an entry
// that exists only in memory would be lost to the copy read from the file.
void CVMDKGrainDirectory::makeRoomForBatch(int64 first, int64 end) {
    if (m_access != IIOStream::Access_ReadWrite || !m_cache->hasUnflushedTables(this))
        return;
    if (!m_cache->wouldEvict(end - first) && !m_cache->hasCachedTables(this, first, end))
        return;
    flushChangesInOrder();
}

P<CVMDKGrainTable> CVMDKGrainDirectory::getGrainTable(int64 tableIndex) {
    verifyTableIndex(tableIndex);
    if (P<CVMDKGrainTable> cached = m_cache->getCachedTable(this, tableIndex))
        return cached;

    const int64 streamLength = m_stream->getLength();
    verifyTablePosition(tableIndex, m_directory.at(tableIndex), m_entriesPerTable * entryBytes, streamLength);
    if (writesRedundantTable(tableIndex))
        verifyTablePosition(tableIndex, m_redundantDirectory.at(tableIndex), m_entriesPerTable * entryBytes,
                            streamLength);
    if (m_compressed || m_slotSizeDirectory.at(tableIndex) != 0)
        verifyTablePosition(tableIndex, m_slotSizeDirectory.at(tableIndex), m_entriesPerTable * slotSizeBytes,
                            streamLength);

    const int64 first = tableIndex & ~(batchSize - 1);
    const int64 end = std::min(first + batchSize, m_tableCount);
    makeRoomForBatch(first, end);

    // All are read before any is stored, so that a failure leaves the cache as it was. Tables that
    // cannot be read are left out: whoever asks for one of them gets the error.
    TArray<std::pair<int64, P<CVMDKGrainTable>>> batch;
    P<CVMDKGrainTable> wanted;
    for (int64 t = first; t < end; ++t) {
        if (!canLoadTable(t, streamLength))
            continue;
        batch.emplace_back(t, loadTable(t));
        if (t == tableIndex)
            wanted = batch.back().second;
    }
    for (const auto& [index, table] : batch)
        m_cache->setCachedTable(this, index, table.get());
    if (!wanted)
        throw CError("Internal error: CVMDKGrainDirectory::getGrainTable updated the cache, but did not "
                     "encounter the requested table (requested index: " +
                     toDecimal(tableIndex) + ")");
    return wanted;
}

void CVMDKGrainDirectory::setSlotBounds(int64 firstSector, int64 endBytes) {
    m_slotsBeginSector = firstSector;
    m_slotsEndBytes = endBytes;
}

bool CVMDKGrainDirectory::isOutsideBounds(int64 grainPosSectors, int64 slotSizeSectors) const noexcept {
    return grainPosSectors < m_slotsBeginSector ||
           (grainPosSectors + slotSizeSectors) * vmdkSectorSize > m_slotsEndBytes;
}

bool CVMDKGrainDirectory::isOwnSlot(int64 grainIndex) const {
    const auto found = m_ownSlots.find(grainIndex / m_entriesPerTable);
    return found != m_ownSlots.end() &&
           found->second[static_cast<std::size_t>(grainIndex % m_entriesPerTable)];
}

void CVMDKGrainDirectory::getGrainInfo(int64 grainIndex, int64& grainPosSectors, int64& slotSizeSectors) {
    findGrainEntry(grainIndex, grainPosSectors, slotSizeSectors);
    if (grainPosSectors == 0 || !isOutsideBounds(grainPosSectors, slotSizeSectors) || isOwnSlot(grainIndex))
        return;
    throw CIOError(
        CIOError::Code_BadFormat,
        "VMDK grain " + toDecimal(grainIndex) +
            " lies outside the part of the file that holds grains (sector: " + toDecimal(grainPosSectors) +
            ", slot size: " + toDecimal(slotSizeSectors) + " sectors; allowed: sector " +
            toDecimal(m_slotsBeginSector) + " to byte " + toDecimal(m_slotsEndBytes) + ").",
        CProps()
            .add("uri", uriText())
            .add("grainIndex", grainIndex)
            .add("grainPosition", grainPosSectors)
            .add("slotSize", slotSizeSectors));
}

void CVMDKGrainDirectory::findGrainEntry(int64 grainIndex, int64& grainPosSectors, int64& slotSizeSectors) {
    const int64 tableIndex = grainIndex / m_entriesPerTable;
    verifyTableIndex(tableIndex);
    if (grainIndex >= 0 && m_directory.at(tableIndex) == 0) {
        grainPosSectors = 0;
        slotSizeSectors = 0;
        return;
    }
    getGrainTable(tableIndex)->getGrainInfo(grainIndex % m_entriesPerTable, grainPosSectors, slotSizeSectors);
}

int64 CVMDKGrainDirectory::findSlotRun(int64 grainIndex, bool& hasSlot) {
    const int64 tableIndex = grainIndex / m_entriesPerTable;
    verifyTableIndex(tableIndex);
    hasSlot = false;
    const int64 nextTable = grainIndex < 0 ? tableIndex : m_directory.findNext(tableIndex);
    if (nextTable >
        tableIndex) // nothing more is to be read of what a header claims and the file does not hold
        return std::min(nextTable * m_entriesPerTable, m_grainCount) - grainIndex;
    const int64 left = std::min((tableIndex + 1) * m_entriesPerTable, m_grainCount) - grainIndex;
    return std::min(left, getGrainTable(tableIndex)->findSlotRun(grainIndex % m_entriesPerTable, hasSlot));
}

void CVMDKGrainDirectory::setGrainInfo(int64 grainIndex, int64 grainPosSectors, int64 slotSizeSectors) {
    const int64 tableIndex = grainIndex / m_entriesPerTable;
    const P<CVMDKGrainTable> table = getGrainTable(tableIndex);
    // A small cache may have let go of the table in the very batch that read it. It would be written by
    // its destructor then, which can tell nobody of a failure. It comes back before it is changed: when there
    // is no memory for that, nothing has happened.
    if (m_cache->getCachedTable(this, tableIndex) != table)
        m_cache->setCachedTable(this, tableIndex, table.get());
    const bool isOutside = isOutsideBounds(grainPosSectors, slotSizeSectors);
    if (isOutside) // for the same reason
        m_ownSlots[tableIndex].resize(static_cast<std::size_t>(m_entriesPerTable), false);
    table->setGrainInfo(grainIndex % m_entriesPerTable, grainPosSectors, slotSizeSectors);
    if (isOutside)
        m_ownSlots[tableIndex][static_cast<std::size_t>(grainIndex % m_entriesPerTable)] = true;
}

void CVMDKGrainDirectory::flushChangesToStream() {
    m_cache->flushCachedTablesFromDirectoryToStream(this);
}

void CVMDKGrainDirectory::flushChangesInOrder() {
    m_cache->writeSlotSizesOfNewGrains(this);
    m_stream->flush();
    m_cache->writeChangedEntries(this);
    if (m_cache->hasUnflushedTables(this)) // grains that moved
        m_stream->flush();
    flushChangesToStream();
}

} // namespace tessel
