#pragma once

#include "lum/CBase.h"
#include "lum/TWipingAllocator.h"
#include "lum/types.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace lum {

/// A growable row of plain elements with an allocated size and a used size, both counted in
/// elements. Only the used elements are contents. Memory is zeroed when it is allocated; elements
/// that leave the used part and come back keep whatever they held.
///
/// A buffer that is handed around as P<TBuffer> is made with `new` and taken into a P<> at once; one
/// that is not may be a member or a local.
template <class T, class Allocator = std::allocator<T>>
class TBuffer : public CBase {
public:
    TBuffer() = default;
    /// `used` elements of zero.
    explicit TBuffer(int64 used) { setUsed(used); }
    /// A copy of `count` elements.
    TBuffer(const T* data, int64 count) { assign(data, count); }
    /// A copy of the used part.
    TBuffer(const TBuffer& other) : TBuffer(other.getData(), other.m_used) {}
    /// Takes over the memory; the other is empty afterwards.
    TBuffer(TBuffer&& other) noexcept : m_memory(std::move(other.m_memory)), m_used(other.m_used) {
        other.m_memory.clear();
        other.m_used = 0;
    }
    /// As assign().
    TBuffer& operator=(const TBuffer& other) {
        if (this != &other)
            assign(other.getData(), other.m_used);
        return *this;
    }
    /// Takes over the memory; the other is empty afterwards.
    TBuffer& operator=(TBuffer&& other) noexcept {
        if (this != &other) {
            m_memory = std::move(other.m_memory);
            m_used = other.m_used;
            other.m_memory.clear();
            other.m_used = 0;
        }
        return *this;
    }

    /// Elements that are contents.
    int64 getUsed() const noexcept { return m_used; }
    /// Elements that there is memory for.
    int64 getAllocated() const noexcept { return static_cast<int64>(m_memory.size()); }
    /// True without contents.
    bool isEmpty() const noexcept { return m_used == 0; }

    /// The first element; valid until the memory grows.
    T* getData() noexcept { return m_memory.data(); }
    /// The same for reading.
    const T* getData() const noexcept { return m_memory.data(); }
    /// An element. Requires: 0 <= i < the allocated size.
    T& operator[](int64 i) noexcept { return m_memory[static_cast<std::size_t>(i)]; }
    /// The same for reading.
    const T& operator[](int64 i) const noexcept { return m_memory[static_cast<std::size_t>(i)]; }

    /// Makes room for at least n elements; contents and used size stay.
    /// Throws: std::bad_alloc or std::length_error, contents unchanged.
    void ensureAllocated(int64 n) {
        if (n > getAllocated())
            m_memory.resize(static_cast<std::size_t>(n));
    }

    /// Sets the used size, growing the memory where needed.
    /// Requires: n >= 0.
    void setUsed(int64 n) {
        ensureAllocated(n);
        m_used = n;
    }

    /// Replaces the contents by `count` elements. `data` may not lie in this buffer.
    void assign(const T* data, int64 count) {
        setUsed(count);
        std::copy_n(data, count, getData());
    }
    /// Replaces the contents by a copy of another's.
    void assign(const TBuffer& other) { *this = other; }

    /// Adds `count` elements at the end. `data` may not lie in this buffer.
    void append(const T* data, int64 count) {
        const int64 old = m_used;
        if (old + count > getAllocated())
            ensureAllocated(std::max(old + count, 2 * getAllocated()));
        m_used = old + count;
        std::copy_n(data, count, getData() + old);
    }

    /// Sets every used element to `value`.
    void fill(T value) { std::fill_n(getData(), m_used, value); }

    /// Equal when the used parts are.
    friend bool operator==(const TBuffer& a, const TBuffer& b) noexcept {
        return a.m_used == b.m_used && std::equal(a.getData(), a.getData() + a.m_used, b.getData());
    }

private:
    std::vector<T, Allocator> m_memory;
    int64 m_used = 0;
};

/// The same for key material: memory is wiped before it is given back, when the buffer goes as well
/// as when it grows. Keep such a buffer and every copy of it in this type.
template <class T>
using TCryptBuffer = TBuffer<T, TWipingAllocator<T>>;

} // namespace lum
