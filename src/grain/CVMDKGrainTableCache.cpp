#include "tessel/CVMDKGrainTableCache.h"

namespace tessel {

CVMDKGrainTableCache::CVMDKGrainTableCache(int limit) : m_cache(new Cache(limit)) {}

P<CVMDKGrainTable> CVMDKGrainTableCache::getCachedTable(CVMDKGrainDirectory* directory, int64 tableIndex) {
    return m_cache->get(CKey{directory, tableIndex});
}

void CVMDKGrainTableCache::setCachedTable(CVMDKGrainDirectory* directory, int64 tableIndex,
                                          CVMDKGrainTable* table) {
    m_cache->set(CKey{directory, tableIndex}, table);
}

void CVMDKGrainTableCache::enforceLimit() {
    m_cache->enforceLimit();
}

void CVMDKGrainTableCache::setAutoEnforceLimit(bool enabled) {
    m_cache->setAutoEnforceLimit(enabled);
}

void CVMDKGrainTableCache::flushCachedTablesFromDirectoryToStream(CVMDKGrainDirectory* directory) {
    m_cache->forEach([directory](const CKey& key, CVMDKGrainTable& table) {
        if (key.directory == directory)
            table.flushChangesToStream();
    });
}

void CVMDKGrainTableCache::removeCachedTablesFromDirectory(CVMDKGrainDirectory* directory) {
    TArray<CKey> keys;
    m_cache->forEach([&](const CKey& key, CVMDKGrainTable&) {
        if (key.directory == directory)
            keys.push_back(key);
    });
    for (const CKey& key : keys)
        m_cache->remove(key);
}

void CVMDKGrainTableCache::clear() {
    m_cache->clear();
}

int CVMDKGrainTableCache::getCachedTableCount() const noexcept {
    return m_cache->getCount();
}

bool CVMDKGrainTableCache::hasUnflushedTables(CVMDKGrainDirectory* directory) const {
    bool found = false;
    m_cache->forEach([&](const CKey& key, const CVMDKGrainTable& table) {
        found = found || (key.directory == directory && table.hasUnflushedChanges());
    });
    return found;
}

bool CVMDKGrainTableCache::hasCachedTables(CVMDKGrainDirectory* directory, int64 first, int64 end) const {
    bool found = false;
    m_cache->forEach([&](const CKey& key, const CVMDKGrainTable&) {
        found = found || (key.directory == directory && key.tableIndex >= first && key.tableIndex < end);
    });
    return found;
}

bool CVMDKGrainTableCache::wouldEvict(int64 count) const noexcept {
    return m_cache->getAutoEnforceLimit() && count > m_cache->getLimit() - m_cache->getCount();
}

} // namespace tessel
