#pragma once

#include "lum/CBase.h"
#include "lum/IMutex.h"

#include <mutex>

namespace lum {

/// A lock for the threads of this process.
class TESSEL_EXPORT CMutex : public CBase, public IMutex {
public:
    void lock() override { m_mutex.lock(); }
    void unlock() noexcept override { m_mutex.unlock(); }

private:
    std::mutex m_mutex;
};

} // namespace lum
