#pragma once

#include <unistd.h>

#include <utility>

namespace lum {

/// Owns a descriptor of the system; -1 is none.
class CFileDescriptor {
public:
    CFileDescriptor() noexcept = default;
    explicit CFileDescriptor(int descriptor) noexcept : m_descriptor(descriptor) {}
    CFileDescriptor(CFileDescriptor&& other) noexcept : m_descriptor(other.take()) {}
    CFileDescriptor& operator=(CFileDescriptor&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~CFileDescriptor() {
        if (isOpen())
            ::close(m_descriptor);
    }

    int get() const noexcept { return m_descriptor; }
    bool isOpen() const noexcept { return m_descriptor >= 0; }
    /// Gives it to the caller, who closes it.
    int take() noexcept { return std::exchange(m_descriptor, -1); }

private:
    int m_descriptor = -1;
};

} // namespace lum
