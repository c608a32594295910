#pragma once

#include "lum/IBase.h"

namespace lum {

/// A lock for threads. Not recursive.
class TESSEL_EXPORT IMutex : public virtual IBase {
public:
    virtual void lock() = 0;
    virtual void unlock() noexcept = 0;
};

} // namespace lum
