#pragma once

namespace lum {

/// A reference that may be absent. It owns nothing; what it refers to must outlive it.
template <class T>
class TConstOptRef {
public:
    constexpr TConstOptRef() noexcept = default;
    constexpr TConstOptRef(const T& object) noexcept : m_object(&object) {}
    constexpr explicit TConstOptRef(const T* object) noexcept : m_object(object) {}

    constexpr explicit operator bool() const noexcept { return m_object != nullptr; }
    constexpr const T& operator*() const noexcept { return *m_object; }
    constexpr const T* operator->() const noexcept { return m_object; }
    constexpr const T* get() const noexcept { return m_object; }

private:
    const T* m_object = nullptr;
};

} // namespace lum
