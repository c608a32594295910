#pragma once

#include "disk/CGrainRecordChecker.h"
#include "disk/CSectorSet.h"

namespace tessel {

/// Looks at the directories and tables of an extent, and at the slots to which they lead.
class CGrainTablesChecker {
public:
    /// All are borrowed. `records` is null when the contents of slots are not to be looked at.
    CGrainTablesChecker(CCheckedExtent& extent, CGrainRecordChecker& records, bool quick);

    /// Takes a place of the file as no slot's and no table's. False when part of it is taken already.
    bool addMetadata(int64 posSectors, int64 sectors);

    /// Finds what is wrong with directories, tables and slots. `slotSizeDirectoryPosSectors`: 0 without one.
    void check(int64 slotSizeDirectoryPosSectors);

    // After check().

    /// The sector behind the last slot, at least the overhead.
    int64 getSlotsEnd() const noexcept { return m_slotsEnd; }
    /// Sectors from the overhead on up to `end` that nothing uses; 0 when that cannot be told.
    int64 countDeadSectors(int64 end) const noexcept;

private:
    /// Where the copies of a table are, by the directories; 0: nowhere.
    struct UPositions {
        int64 table;
        int64 redundantTable;
        int64 slotSizes;
    };
    using Entries = TBuffer<uint32>;
    /// A copy of a grain table. Empty when it is nowhere, or where it cannot be.
    struct UCopy {
        const char* name;
        int64 posSectors;
        Entries entries;
    };

    template <class Visit>
    void visitTables(Visit visit);
    bool tryReadDirectory(int64 posSectors, int64 first, int64 count, Entries& entries);

    int64 getTableBytes() const noexcept;
    int64 getSlotSizeTableBytes() const noexcept;
    void markTable(int64 tableIndex, int64 posSectors, int64 sizeBytes, CSectorSet& bad);
    String describePosition(int64 posSectors, int64 sizeBytes) const;

    void checkTable(int64 tableIndex, const UPositions& positions);
    void loadCopy(int64 tableIndex, int count, const CSectorSet& bad, UCopy& copy);
    void loadSlotSizes(int64 tableIndex, int count, int64 posSectors);
    void checkPositions(int64 tableIndex, const UPositions& positions, const UCopy& redundant);
    void compareCopies(int64 tableIndex, const UCopy& primary, const UCopy& redundant);
    bool isWhole(const Entries& entries) const;
    bool hasTwins(const Entries& entries) const;
    void checkEntries(int64 tableIndex, const UCopy& copy);
    void checkSlot(int64 grainIndex, int64 posSectors, int64 recordedSize);
    /// False, with what is wrong, for a slot that cannot be one.
    bool isPlausible(int64 posSectors, int64 slotSectors, UVMDKCheckFinding::Kind& kind,
                     String& problem) const;
    int64 getRecordedSize(int index) const;

    CCheckedExtent* m_extent;
    CGrainRecordChecker* m_records;
    bool m_quick;
    int64 m_slotSizeDirectoryPosSectors = 0;
    /// Where metadata may lie and slots may not: 0 when the header's number is of no use.
    int64 m_overheadSectors;
    /// Units of slots: grains in plain extents, whose slots are aligned, and sectors in others.
    int64 m_unitSectors;
    CSectorSet m_metadata;
    CSectorSet m_slots;
    CSectorSet m_slotStarts;
    // Tables that cannot be where the directories say.
    CSectorSet m_badTables;
    CSectorSet m_badRedundantTables;
    CSectorSet m_badSlotSizes;
    int64 m_metadataBehindOverhead = 0;
    int64 m_slotsEnd = 0;
    /// Slot sizes of the table at hand; empty when they are not known.
    TBuffer<uint16> m_slotSizes;
};

} // namespace tessel
