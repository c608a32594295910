#pragma once

namespace lum {

/// A reference that may be absent. It owns nothing; what it refers to must outlive it.
template <class T>
class TConstOptRef {
public:
    constexpr TConstOptRef() noexcept = default;
    /// Refers to `object`.
    constexpr TConstOptRef(const T& object) noexcept : m_object(&object) {}
    /// Refers to `object`; null is absent.
    constexpr explicit TConstOptRef(const T* object) noexcept : m_object(object) {}

    /// True when there is something to refer to.
    constexpr explicit operator bool() const noexcept { return m_object != nullptr; }
    /// What is referred to. Requires: it is there.
    constexpr const T& operator*() const noexcept { return *m_object; }
    /// What is referred to. Requires: it is there.
    constexpr const T* operator->() const noexcept { return m_object; }
    /// What is referred to, or null.
    constexpr const T* get() const noexcept { return m_object; }

private:
    const T* m_object = nullptr;
};

} // namespace lum
