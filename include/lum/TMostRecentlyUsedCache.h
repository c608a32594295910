#pragma once

#include "lum/CBase.h"
#include "lum/P.h"
#include "lum/types.h"

#include <algorithm>
#include <iterator>

namespace lum {

/// A map that keeps at most a number of entries: the ones used last. K needs a less-than, V is counted.
/// Look-up and insertion are logarithmic, the order of use costs constant time.
template <class K, class V>
class TMostRecentlyUsedCache : public CBase {
public:
    /// `limit`: how many entries enforcement leaves; below 0 counts as 0.
    /// `removed`, if given, receives every value that enforcement, removal or clearing takes out; it
    /// must outlive the cache.
    explicit TMostRecentlyUsedCache(int limit, TList<P<V>>* removed = nullptr)
        : m_limit(std::max(limit, 0)), m_removed(removed) {}
    TMostRecentlyUsedCache(const TMostRecentlyUsedCache&) = delete;
    TMostRecentlyUsedCache& operator=(const TMostRecentlyUsedCache&) = delete;
    /// Lets go of every value, without passing them to `removed`. The cache stands until the last has
    /// gone: a value's destructor may still look into it.
    ~TMostRecentlyUsedCache() override {
        m_removed = nullptr;
        clear();
    }

    /// The value of a key, or null. A hit becomes the entry used last. Never enforces the limit.
    P<V> get(const K& key) {
        const auto found = m_entries.find(key);
        if (found == m_entries.end())
            return nullptr;
        moveToFront(found->second);
        return found->second.value;
    }

    /// Stores a value. A present key gets the new value and becomes the entry used last; only a new
    /// key makes the limit be enforced (when that is automatic).
    void set(const K& key, V* value) {
        P<V> replaced(value); // what is replaced lives until the cache is in order again
        const auto [place, isNew] = m_entries.try_emplace(key);
        place->second.value.swap(replaced);
        if (!isNew) {
            moveToFront(place->second);
            return;
        }
        try {
            m_recency.push_front(place);
        } catch (...) {
            place->second.value.swap(replaced);
            m_entries.erase(place);
            throw;
        }
        place->second.place = m_recency.begin();
        if (m_autoEnforce)
            enforceLimit();
    }

    /// Takes out the entries used longest ago until no more than the limit are left.
    void enforceLimit() {
        while (getCount() > m_limit)
            takeOut(m_recency.back());
    }

    /// When this changes to true, the limit is enforced at once.
    void setAutoEnforceLimit(bool enabled) {
        if (enabled == m_autoEnforce)
            return;
        m_autoEnforce = enabled;
        if (enabled)
            enforceLimit();
    }
    /// Whether new keys make the limit be enforced; true at first.
    bool getAutoEnforceLimit() const noexcept { return m_autoEnforce; }

    /// Takes out one entry; does nothing when there is none.
    void remove(const K& key) {
        const auto found = m_entries.find(key);
        if (found != m_entries.end())
            takeOut(found);
    }

    /// Takes out the entries from `first` on, in key order, as long as `isWanted(key)`. Needs no memory.
    template <class Condition>
    void removeFrom(const K& first, Condition isWanted) {
        for (auto entry = m_entries.lower_bound(first); entry != m_entries.end() && isWanted(entry->first);
             entry = m_entries.lower_bound(first))
            takeOut(entry);
    }

    /// Takes out every entry.
    void clear() {
        while (!m_recency.empty())
            takeOut(m_recency.back());
    }

    /// How many entries there are.
    int getCount() const noexcept { return static_cast<int>(m_entries.size()); }
    /// How many entries enforcement leaves.
    int getLimit() const noexcept { return m_limit; }

    /// Calls `visit(key, value&)` for every entry in key order; the order of use stays. The cache may
    /// not be changed meanwhile.
    template <class Visitor>
    void forEach(Visitor visit) const {
        for (const auto& [key, entry] : m_entries)
            visit(key, *entry.value);
    }

private:
    struct Entry;
    using Map = TMap<K, Entry>;
    using Recency = TList<typename Map::iterator>;
    struct Entry {
        P<V> value;
        typename Recency::iterator place;
    };

    void moveToFront(Entry& entry) { m_recency.splice(m_recency.begin(), m_recency, entry.place); }

    void takeOut(typename Map::iterator which) {
        P<V> value = which->second.value; // let go last: its destructor may do anything
        if (m_removed)
            m_removed->push_back(value);
        m_recency.erase(which->second.place);
        m_entries.erase(which);
    }

    int m_limit;
    bool m_autoEnforce = true;
    Map m_entries;
    Recency m_recency;
    TList<P<V>>* m_removed;
};

} // namespace lum
