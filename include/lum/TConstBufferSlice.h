#pragma once

#include "lum/TBuffer.h"

namespace lum {

/// A view of part of a buffer: it owns nothing, and the buffer must outlive it unchanged.
template <class T>
class TConstBufferSlice {
public:
    /// Requires: 0 <= offset, offset + length <= the buffer's used size.
    TConstBufferSlice(const TBuffer<T>& buffer, int64 offset, int64 length) noexcept
        : m_data(buffer.getData() + offset), m_length(length) {}
    /// The whole used part.
    explicit TConstBufferSlice(const TBuffer<T>& buffer) noexcept
        : TConstBufferSlice(buffer, 0, buffer.getUsed()) {}

    /// The first element of the view.
    const T* getData() const noexcept { return m_data; }
    /// Elements of the view.
    int64 getLength() const noexcept { return m_length; }

private:
    const T* m_data;
    int64 m_length;
};

} // namespace lum
