#include "CPreparerPool.h"

namespace tessel::cli {

CPreparerPool::UWorker CPreparerPool::take() {
    {
        const std::lock_guard lock(m_mutex);
        m_free.reserve(m_free.size() + m_lent + 1); // giving back cannot fail
        ++m_lent;
        if (!m_free.empty()) {
            UWorker worker = std::move(m_free.back());
            m_free.pop_back();
            return worker;
        }
    }
    try {
        UWorker worker;
        worker.preparer = new CVMDKDataPreparer(m_grainSizeBytes / vmdkSectorSize, true, m_level);
        worker.plain = new TBuffer<unsigned char>;
        return worker;
    } catch (...) {
        const std::lock_guard lock(m_mutex);
        --m_lent;
        throw;
    }
}

void CPreparerPool::giveBack(UWorker worker) noexcept {
    const std::lock_guard lock(m_mutex);
    m_free.push_back(std::move(worker));
    --m_lent;
}

} // namespace tessel::cli
