#pragma once

#include "lum/IBase.h"

namespace lum {

/// A lock on a range of a file. The range is released when the last holder lets go, or by unlock().
class TESSEL_EXPORT IStreamLock : public virtual IBase {
public:
    /// Releases the range now; a second call does nothing.
    virtual void unlock() noexcept = 0;
};

} // namespace lum
