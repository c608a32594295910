#pragma once

#include "lum/TMostRecentlyUsedCache.h"
#include "tessel/CVMDKGrainTable.h"

namespace tessel {

class CVMDKGrainDirectory;

/// Keeps the grain tables used last, of one or more directories, up to a number of tables. A table that
/// leaves the cache with changes writes itself when its last holder lets go.
class TESSEL_EXPORT CVMDKGrainTableCache : public CBase {
public:
    /// Names a table: its directory, by address, and its index there.
    struct TESSEL_EXPORT CKey {
        /// Compared by its address; never used through this key.
        CVMDKGrainDirectory* directory;
        /// Index of the table in the directory.
        int64 tableIndex;

        /// Equal when both parts are.
        friend bool operator==(const CKey&, const CKey&) = default;
        /// By directory, then by index.
        friend bool operator<(const CKey& a, const CKey& b) noexcept {
            const auto addressA = reinterpret_cast<std::uintptr_t>(a.directory);
            const auto addressB = reinterpret_cast<std::uintptr_t>(b.directory);
            return addressA != addressB ? addressA < addressB : a.tableIndex < b.tableIndex;
        }
    };

    /// How many tables a cache keeps unless it is told otherwise.
    static constexpr int defaultLimit = 1024;

    /// `limit`: the largest number of tables that is kept; below 0 counts as 0.
    explicit CVMDKGrainTableCache(int limit = defaultLimit);

    /// The table, now the one used last, or null.
    P<CVMDKGrainTable> getCachedTable(CVMDKGrainDirectory* directory, int64 tableIndex);
    /// Stores a table; one that was there is let go. Only a new key makes the limit be enforced.
    void setCachedTable(CVMDKGrainDirectory* directory, int64 tableIndex, CVMDKGrainTable* table);

    /// Lets go of the tables used longest ago until no more than the limit are left.
    void enforceLimit();
    /// Whether new tables make the limit be enforced; it is enforced at once when this becomes true.
    /// While it is false no table is written for want of room, and memory grows with the disk.
    void setAutoEnforceLimit(bool enabled);

    /// Writes the changed tables of a directory, in the order of their indices.
    /// Throws: the first table's error; the rest is then not written.
    void flushCachedTablesFromDirectoryToStream(CVMDKGrainDirectory* directory);
    /// The steps of CVMDKGrainTable, for the tables of a directory.
    void writeSlotSizesOfNewGrains(CVMDKGrainDirectory* directory);
    /// The second step, for the tables of a directory. Throws: as flushCachedTablesFromDirectoryToStream.
    void writeChangedEntries(CVMDKGrainDirectory* directory);
    /// Lets go of the tables of a directory. Those with changes write themselves as they go.
    void removeCachedTablesFromDirectory(CVMDKGrainDirectory* directory);
    /// Lets go of every table.
    void clear();

    /// How many tables there are, of all directories.
    int getCachedTableCount() const noexcept;

    /// True when any table of the directory has changes that are not written.
    bool hasUnflushedTables(CVMDKGrainDirectory* directory) const;
    /// True when any table of the directory from `first` up to `end` is cached.
    bool hasCachedTables(CVMDKGrainDirectory* directory, int64 first, int64 end) const;
    /// True when storing `count` new tables would make others leave.
    bool wouldEvict(int64 count) const noexcept;

private:
    template <class Visitor>
    void forEachTable(CVMDKGrainDirectory* directory, Visitor visit) const;

    using Cache = TMostRecentlyUsedCache<CKey, CVMDKGrainTable>;

    P<Cache> m_cache;
};

} // namespace tessel
