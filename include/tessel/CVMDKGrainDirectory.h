#pragma once

#include "tessel/CVMDKGrainTable.h"
#include "tessel/CVMDKGrainTableCache.h"

namespace tessel {

/// Finds position and slot size of every grain of one sparse extent: the grain directory, its redundant
/// copy, the slot size directory of compressed extents, and the tables they name, through a cache. The
/// directories themselves never change. Of each no more than 1 MiB is in memory, however long it is.
class TESSEL_EXPORT CVMDKGrainDirectory : public CBase {
public:
    /// Bounds on what a header may ask for.
    static constexpr int64 maxGrainSizeSectors = 32768;
    /// The largest number of entries of a grain table.
    static constexpr int maxEntriesPerTable = 4096;

    /// Reads the directories. Positions are sectors; a redundant position below 1 is none. A marker of
    /// the slot size directory is looked for behind the last table, and only below `overheadSectors`
    /// (-1: anywhere), since what stands at the overhead is a grain.
    /// Throws: CIOError 5 that names the number ("uri" and the number's name) for numbers that no extent
    /// can have or that do not fit the file, before anything is allocated; CError ("uri") for a
    /// compressed extent without a slot size directory; the stream's errors.
    CVMDKGrainDirectory(IIOStream* stream, IIOStream::Access access, int64 directoryPosSectors,
                        int64 redundantDirectoryPosSectors, int64 capacitySectors, int64 grainSizeSectors,
                        int entriesPerTable, bool compressed, CVMDKGrainTableCache* cache,
                        int64 overheadSectors = -1);
    /// Writes the changed tables and takes all out of the cache. Failures go to
    /// onExceptionInDestructorIgnored.
    ~CVMDKGrainDirectory() override;
    CVMDKGrainDirectory(const CVMDKGrainDirectory&) = delete;
    CVMDKGrainDirectory& operator=(const CVMDKGrainDirectory&) = delete;

    /// Grains, and grain tables, of an extent.
    static int64 calcExtentGrainCount(int64 capacitySectors, int64 grainSizeSectors);
    /// Grain tables that as many grains take.
    static int64 calcExtentGrainTableCount(int64 capacitySectors, int64 grainSizeSectors,
                                           int entriesPerTable);

    /// The table of an index. Tables are read 32 at a time.
    /// Throws: CInvalidArgError ("uri") for an index outside the directory; CIOError 5 ("uri",
    /// "tableIndex", "tablePosition") for a table that was never allocated or lies behind the end of the
    /// file (its redundant copy too, where it would be written); the stream's errors.
    P<CVMDKGrainTable> getGrainTable(int64 tableIndex);

    /// Says where slots may lie: from a sector, where the metadata end, to a byte, where the grains' data
    /// end. Entries that come from the file, and not from setGrainInfo(), are
    /// held against it. Without bounds every entry is taken as it is.
    /// Requires: nothing was changed yet.
    void setSlotBounds(int64 firstSector, int64 endBytes);

    /// Slot position and slot size of a grain in sectors, both 0 for a grain without a slot, so too for
    /// all grains of a table that was never allocated.
    /// Throws: CIOError 5 ("uri", "grainIndex", "grainPosition", "slotSize") for a slot outside the bounds;
    /// as getGrainTable and the table.
    void getGrainInfo(int64 grainIndex, int64& grainPosSectors, int64& slotSizeSectors);
    /// The same, whatever bounds there are. Throws: as getGrainTable and the table.
    void findGrainEntry(int64 grainIndex, int64& grainPosSectors, int64& slotSizeSectors);
    /// From a grain on, how many grains of the same table in a row have slots, or have none; `hasSlot` tells
    /// which. Tables in a row that were never allocated count as one. Throws: as getGrainTable and the table.
    int64 findSlotRun(int64 grainIndex, bool& hasSlot);
    /// Changes them, in memory. Throws: as getGrainTable and the table.
    void setGrainInfo(int64 grainIndex, int64 grainPosSectors, int64 slotSizeSectors);

    /// The first table from an index on that the directory names; the number of tables when none follows.
    /// Grains of tables between have no slots. Throws: the stream's errors.
    int64 findNextTable(int64 tableIndex) { return m_directory.findNext(tableIndex); }

    /// Whether there is a slot size directory, as compressed extents have it.
    bool getHaveSlotSizeInfo() const noexcept { return m_slotSizeDirectory.isPresent(); }
    /// Grains of the extent, with a slot or without.
    int64 getGrainCount() const noexcept { return m_grainCount; }
    /// Grain tables of the extent, whether the file has them or not.
    int64 getTableCount() const noexcept { return m_tableCount; }
    /// Grains of one table.
    int getEntriesPerTable() const noexcept { return m_entriesPerTable; }

    /// Writes the changed tables. The stream is not flushed.
    void flushChangesToStream();
    /// Writes the changed tables so that no loss of power meanwhile harms a grain: flushes the stream, and
    /// with it the data that the tables name, before the tables, and between the steps of
    /// CVMDKGrainTable. The last step is written, but not flushed.
    void flushChangesInOrder();

private:
    /// The entries of one directory, of which a part is in memory: all, where that is not much.
    class CEntries {
    public:
        /// Reads the first part. Throws: the stream's errors.
        void open(IIOStream* stream, int64 posSectors, int64 count);
        bool isPresent() const noexcept { return m_stream && m_count > 0; }
        /// The entry of a table; 0 of a directory that is not present. Throws: the stream's errors.
        uint32 at(int64 tableIndex);
        /// The first entry from an index on that is not 0; the number of entries when there is none.
        int64 findNext(int64 tableIndex);

    private:
        void load(int64 first);

        P<IIOStream> m_stream;
        int64 m_posSectors = 0;
        int64 m_count = 0;
        int64 m_first = 0; ///< of the part
        TBuffer<uint32> m_part;
    };

    void verifyNumbers() const;
    void findSlotSizeDirectory(int64 overheadSectors);
    void verifyTableIndex(int64 tableIndex) const;
    void verifyTablePosition(int64 tableIndex, int64 posSectors, int64 sizeBytes, int64 streamLength) const;
    bool writesRedundantTable(int64 tableIndex);
    bool canLoadTable(int64 tableIndex, int64 streamLength);
    void verifyNoOverlap(int64 posSectors, int64 otherPosSectors) const;
    bool isOutsideBounds(int64 grainPosSectors, int64 slotSizeSectors) const noexcept;
    bool isOwnSlot(int64 grainIndex) const;
    P<CVMDKGrainTable> loadTable(int64 tableIndex);
    void makeRoomForBatch(int64 first, int64 end);
    String uriText() const;

    P<IIOStream> m_stream;
    P<CVMDKGrainTableCache> m_cache;
    IIOStream::Access m_access;
    int64 m_directoryPosSectors;
    int64 m_redundantDirectoryPosSectors;
    int64 m_slotSizeDirectoryPosSectors = 0;
    int64 m_grainSizeSectors;
    int m_entriesPerTable;
    bool m_compressed;
    int64 m_grainCount = 0;
    int64 m_tableCount = 0;
    CEntries m_directory;
    CEntries m_redundantDirectory;
    CEntries m_slotSizeDirectory;
    int64 m_capacitySectors;
    int64 m_slotsBeginSector = 0;
    int64 m_slotsEndBytes = INT64_MAX;
    /// Of the tables that were given slots outside the bounds, which of their grains. A slot that is made
    /// lies behind the end that the file had, where a false entry may have pointed before.
    TMap<int64, TArray<bool>> m_ownSlots;
};

} // namespace tessel
