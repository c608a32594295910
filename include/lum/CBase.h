#pragma once

#include "lum/IBase.h"

#include <atomic>
#include <cstddef>
#include <typeinfo>

namespace lum {

/// Counted base of every class of the library. An object is born with a count of 0, so the first
/// P<> that takes it owns it, and the last one that lets go destroys it. An object that no P<> ever
/// takes may live anywhere, as a member or on the stack. The count is atomic; all else is for one
/// thread at a time.
class TESSEL_EXPORT CBase : public virtual IBase {
public:
    void addRef() const noexcept override;
    void release() const noexcept override;

    /// Asked before a holder is turned into one of another type (see castTo in P.h). The default
    /// allows every cast.
    /// Throws: CError when the class refuses to be seen as `target`.
    virtual void checkCastAllowed(const std::type_info& target) const;

    /// One definition of allocation for all objects: that of the library, whoever makes them.
    /// Throws: std::bad_alloc.
    static void* operator new(std::size_t size);
    /// Gives back what this operator new gave.
    static void operator delete(void* memory) noexcept;
    /// An object at a given place; nothing is allocated.
    static void* operator new(std::size_t, void* place) noexcept { return place; }
    /// Counterpart of the placement form: nothing to give back.
    static void operator delete(void*, void*) noexcept {}

protected:
    CBase() noexcept = default;
    /// A copy is a new object: it starts without holders, whatever the original has.
    CBase(const CBase&) noexcept : IBase() {}
    /// Assignment changes the contents; the holders stay as they are.
    CBase& operator=(const CBase&) noexcept { return *this; }
    ~CBase() override = default;

    /// Called by the last release(). The default deletes the object.
    virtual void deleteThis() const noexcept;

private:
    mutable std::atomic<int> m_refCount{0};
};

} // namespace lum
