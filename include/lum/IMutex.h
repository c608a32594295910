#pragma once

#include "lum/IBase.h"

namespace lum {

/// A lock for threads. Not recursive.
class TESSEL_EXPORT IMutex : public virtual IBase {
public:
    /// Waits until no other thread has it. Requires: this thread has not.
    virtual void lock() = 0;
    /// Lets go. Requires: this thread has it.
    virtual void unlock() noexcept = 0;
};

} // namespace lum
