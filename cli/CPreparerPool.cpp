#include "CPreparerPool.h"

namespace tessel::cli {

CPreparerPool::UWorker CPreparerPool::take() {
    {
        const std::lock_guard lock(m_mutex);
        m_free.reserve(m_free.size() + 1); // giving back cannot fail
        if (!m_free.empty()) {
            UWorker worker = m_free.back();
            m_free.pop_back();
            return worker;
        }
    }
    UWorker worker;
    worker.preparer = new CVMDKDataPreparer(m_grainSizeBytes / vmdkSectorSize, true, m_level);
    worker.plain = new TBuffer<unsigned char>;
    return worker;
}

void CPreparerPool::giveBack(UWorker worker) noexcept {
    const std::lock_guard lock(m_mutex);
    m_free.push_back(std::move(worker));
}

} // namespace tessel::cli
