#include "tessel/CVMDKGrainTableCache.h"

#include "lum/CInvalidArgError.h"

namespace tessel {

CVMDKGrainTableCache::CVMDKGrainTableCache(int limit) : m_cache(new Cache(limit)) {}

P<CVMDKGrainTable> CVMDKGrainTableCache::getCachedTable(CVMDKGrainDirectory* directory, int64 tableIndex) {
    return m_cache->get(CKey{directory, tableIndex});
}

void CVMDKGrainTableCache::setCachedTable(CVMDKGrainDirectory* directory, int64 tableIndex,
                                          CVMDKGrainTable* table) {
    if (!table)
        throw CInvalidArgError("CVMDKGrainTableCache::setCachedTable", "The table must not be null.",
                               CProps().add("tableIndex", tableIndex));
    m_cache->set(CKey{directory, tableIndex}, table);
}

void CVMDKGrainTableCache::enforceLimit() {
    m_cache->enforceLimit();
}

void CVMDKGrainTableCache::setAutoEnforceLimit(bool enabled) {
    m_cache->setAutoEnforceLimit(enabled);
}

template <class Visitor>
void CVMDKGrainTableCache::forEachTable(CVMDKGrainDirectory* directory, Visitor visit) const {
    m_cache->forEach([&](const CKey& key, CVMDKGrainTable& table) {
        if (key.directory == directory)
            visit(key, table);
    });
}

void CVMDKGrainTableCache::flushCachedTablesFromDirectoryToStream(CVMDKGrainDirectory* directory) {
    forEachTable(directory, [](const CKey&, CVMDKGrainTable& table) { table.flushChangesToStream(); });
}

void CVMDKGrainTableCache::writeSlotSizesOfNewGrains(CVMDKGrainDirectory* directory) {
    forEachTable(directory, [](const CKey&, CVMDKGrainTable& table) { table.writeSlotSizesOfNewGrains(); });
}

void CVMDKGrainTableCache::writeChangedEntries(CVMDKGrainDirectory* directory) {
    forEachTable(directory, [](const CKey&, CVMDKGrainTable& table) { table.writeChangedEntries(); });
}

void CVMDKGrainTableCache::removeCachedTablesFromDirectory(CVMDKGrainDirectory* directory) {
    m_cache->removeFrom(CKey{directory, INT64_MIN},
                        [directory](const CKey& key) { return key.directory == directory; });
}

void CVMDKGrainTableCache::clear() {
    m_cache->clear();
}

int CVMDKGrainTableCache::getCachedTableCount() const noexcept {
    return m_cache->getCount();
}

bool CVMDKGrainTableCache::hasUnflushedTables(CVMDKGrainDirectory* directory) const {
    bool found = false;
    forEachTable(directory, [&](const CKey&, const CVMDKGrainTable& table) {
        found = found || table.hasUnflushedChanges();
    });
    return found;
}

bool CVMDKGrainTableCache::hasCachedTables(CVMDKGrainDirectory* directory, int64 first, int64 end) const {
    bool found = false;
    forEachTable(directory, [&](const CKey& key, const CVMDKGrainTable&) {
        found = found || (key.tableIndex >= first && key.tableIndex < end);
    });
    return found;
}

bool CVMDKGrainTableCache::wouldEvict(int64 count) const noexcept {
    return m_cache->getAutoEnforceLimit() && count > m_cache->getLimit() - m_cache->getCount();
}

} // namespace tessel
