#pragma once

#include "lum/CBase.h"
#include "lum/IIOStream.h"
#include "tessel/types.h"

namespace tessel {

/// One grain table of a sparse extent file in memory, with the slot size table that belongs to it in
/// compressed extents. An entry is the sector of the grain's slot in the file, 0 for a grain that was
/// never written. Made by CVMDKGrainDirectory, kept in CVMDKGrainTableCache.
class TESSEL_EXPORT CVMDKGrainTable : public CBase {
public:
    /// Reads the whole primary table, and the slot size table when its position is at least 1. All
    /// positions are sectors; a redundant position below 1 is none. The redundant table is only
    /// written, never read.
    /// Throws: the stream's error on a short file.
    CVMDKGrainTable(IIOStream* stream, IIOStream::Access access, int64 grainSizeSectors, int64 posSectors,
                    int64 redundantPosSectors, int64 slotSizeTablePosSectors, int entryCount);
    /// Writes what is not yet written; what its entries name is made durable before. A failure goes to
    /// onExceptionInDestructorIgnored.
    ~CVMDKGrainTable() override;

    /// Slot position and slot size of a grain in sectors, both 0 for a grain without a slot.
    /// `grainIndex` counts within this table.
    /// Throws: CInvalidArgError ("uri") for an index outside the table.
    void getGrainInfo(int64 grainIndex, int64& grainPosSectors, int64& slotSizeSectors);

    /// From a grain on, how many grains of this table in a row have slots, or have none; `hasSlot` tells
    /// which. Throws: CInvalidArgError ("uri") for an index outside the table.
    int64 findSlotRun(int64 grainIndex, bool& hasSlot) const;

    /// Changes an entry in memory. Without a slot size table the slot size must be the grain size. The
    /// caller keeps positions below 2^32 and slot sizes below 2^16.
    /// Throws: CInvalidArgError ("uri") for a bad index or slot size, CError without write access; the
    /// table is then unchanged.
    void setGrainInfo(int64 grainIndex, int64 grainPosSectors, int64 slotSizeSectors);

    /// True when something was changed that is not written yet.
    bool hasUnflushedChanges() const noexcept { return m_entriesChanged || m_slotSizesChanged; }

    /// Writes what was changed, each table to all its copies. The stream is not flushed.
    /// Throws: the stream's error; what was not written stays to be written.
    void flushChangesToStream();

    // The same in steps, between which the caller flushes the stream, so that a loss of power at any moment
    // leaves entry and slot size of a grain in agreement. A grain that gets its first slot needs its slot
    // size on disk before its entry; one that moves to a larger slot the other way round, or a slot would
    // seem larger than it is.

    /// First step, together with the data: the slot sizes of grains that had no slot.
    void writeSlotSizesOfNewGrains();
    /// Second step: the entries. What remains is the last step, flushChangesToStream.
    void writeChangedEntries();

private:
    void verifyIndex(const char* method, int64 grainIndex) const;
    void rememberStored();
    void writeInOrder();

    P<IIOStream> m_stream;
    IIOStream::Access m_access;
    int64 m_grainSizeSectors;
    int64 m_posSectors;
    int64 m_redundantPosSectors;
    int64 m_slotSizeTablePosSectors;
    int m_entryCount;
    TBuffer<uint32> m_entries;
    bool m_entriesChanged = false;
    TBuffer<uint16> m_slotSizes;
    bool m_slotSizesChanged = false;
    /// What is on disk, or may be, while that differs and there are slot sizes; else empty.
    TBuffer<uint32> m_storedEntries;
    TBuffer<uint16> m_storedSlotSizes;
};

} // namespace tessel
