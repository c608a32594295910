#pragma once

#include "lum/export.h"

namespace lum {

/// Root of every interface: a thing that is counted by its holders. Interfaces derive from it
/// virtually, so that a class that implements several of them has one count (CBase brings it).
class TESSEL_EXPORT IBase {
public:
    /// Counts one holder more. Safe from any thread.
    virtual void addRef() const noexcept = 0;

    /// Counts one holder less; the last one destroys the object. Safe from any thread.
    virtual void release() const noexcept = 0;

protected:
    IBase() = default;
    /// A copy is counted by itself.
    IBase(const IBase&) = default;
    /// Leaves the count as it is.
    IBase& operator=(const IBase&) = default;
    virtual ~IBase() = default;
};

} // namespace lum
