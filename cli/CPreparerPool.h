#pragma once

#include "tessel/CVMDKDataPreparer.h"

#include <mutex>
#include <vector>

namespace tessel::cli {

/// Data preparers of compressed grains for threads that work at the same time. As many are made as are in use
/// at once, and each keeps its memory from grain to grain.
class CPreparerPool {
public:
    /// What one thread needs.
    struct UWorker {
        P<CVMDKDataPreparer> preparer;
        /// A grain of plain bytes.
        P<TBuffer<unsigned char>> plain;
        /// What a parent holds in the place of those.
        TBuffer<unsigned char> below;
    };

    /// Belongs to one thread as long as it lives.
    class CLease {
    public:
        explicit CLease(CPreparerPool* pool) : m_pool(pool), m_worker(pool->take()) {}
        ~CLease() { m_pool->giveBack(std::move(m_worker)); }
        CLease(const CLease&) = delete;
        CLease& operator=(const CLease&) = delete;

        CVMDKDataPreparer& getPreparer() { return *m_worker.preparer; }
        TBuffer<unsigned char>& getPlain() { return *m_worker.plain; }
        TBuffer<unsigned char>& getBelow() { return m_worker.below; }

    private:
        CPreparerPool* m_pool;
        UWorker m_worker;
    };

    CPreparerPool(int64 grainSizeBytes, int compressionLevel)
        : m_grainSizeBytes(grainSizeBytes), m_level(compressionLevel) {}

    int64 getGrainSizeBytes() const noexcept { return m_grainSizeBytes; }

private:
    UWorker take();
    void giveBack(UWorker worker) noexcept;

    int64 m_grainSizeBytes;
    int m_level;
    std::mutex m_mutex;
    std::vector<UWorker> m_free;
    std::size_t m_lent = 0;
};

} // namespace tessel::cli
