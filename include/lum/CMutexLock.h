#pragma once

#include "lum/IMutex.h"

namespace lum {

/// Holds a mutex for a scope. The mutex is borrowed.
class CMutexLock {
public:
    /// Waits until the mutex is locked. `mutex` may not be null.
    explicit CMutexLock(IMutex* mutex) : m_mutex(mutex) { m_mutex->lock(); }
    ~CMutexLock() { m_mutex->unlock(); }
    CMutexLock(const CMutexLock&) = delete;
    CMutexLock& operator=(const CMutexLock&) = delete;

private:
    IMutex* m_mutex;
};

} // namespace lum
