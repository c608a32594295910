#pragma once

#include "lum/CBase.h"

#include <cstddef>
#include <type_traits>
#include <utility>

namespace lum {

/// Counting pointer to an object that derives from IBase.
///
///   P<CThing> a(new CThing);       // first reference: a owns the new object
///   P<CThing> b = a;               // one holder more
///   P<IThing> c = std::move(b);    // taken over, converted; b is null
///   CThing* raw = a.get();         // borrowed: valid while somebody holds the object
///   void keep(CThing* p) { m_p = p; }   // a raw pointer argument that is kept is taken into a P<>
///
/// Never write P<>(this) in a constructor: the count is still 0, and letting go would destroy the
/// object before it is finished. For the same reason an object on the stack is never taken into a P<>.
template <class T>
class P {
public:
    P() noexcept = default;
    /// Holds nothing.
    P(std::nullptr_t) noexcept {}
    /// Holds `object`, or nothing for null.
    P(T* object) noexcept : m_object(object) {
        if (m_object)
            m_object->addRef();
    }
    /// One holder more.
    P(const P& other) noexcept : P(other.m_object) {}
    /// Takes over; the other is null afterwards.
    P(P&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    /// One holder more, as a base or interface of the object.
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    P(const P<U>& other)
    noexcept : P(static_cast<T*>(other.get())) {}
    /// Takes over, as a base or interface of the object.
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    P(P<U>&& other)
    noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    ~P() {
        if (m_object)
            m_object->release();
    }

    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): the copy holds what this lets go of
    /// One holder more; the object held before is let go last.
    P& operator=(const P& other) noexcept {
        P(other).swap(*this);
        return *this;
    }
    /// Takes over; the object held before is let go last.
    P& operator=(P&& other) noexcept {
        P(std::move(other)).swap(*this);
        return *this;
    }

    /// Exchanges what the two hold; nothing is counted.
    void swap(P& other) noexcept { std::swap(m_object, other.m_object); }

    /// The object, borrowed; null where nothing is held.
    T* get() const noexcept { return m_object; }
    /// The object. Requires: one is held.
    T* operator->() const noexcept { return m_object; }
    /// The object. Requires: one is held.
    T& operator*() const noexcept { return *m_object; }
    /// True when an object is held.
    explicit operator bool() const noexcept { return m_object != nullptr; }

    /// True when both hold the same object, or none.
    friend bool operator==(const P& a, const P& b) noexcept { return a.m_object == b.m_object; }
    /// True when nothing is held.
    friend bool operator==(const P& a, std::nullptr_t) noexcept { return a.m_object == nullptr; }

private:
    template <class U>
    friend class P;

    T* m_object = nullptr;
};

/// A holder of `object` as a T, or null when it is none (or is null itself).
/// Throws: CError when the object's class refuses the cast (CBase::checkCastAllowed).
template <class T, class U>
P<T> castTo(const P<U>& object) {
    T* const target = dynamic_cast<T*>(object.get());
    if (!target)
        return nullptr;
    if (const auto* base = dynamic_cast<const CBase*>(object.get()))
        base->checkCastAllowed(typeid(T));
    return target;
}

} // namespace lum
