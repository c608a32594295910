#pragma once

#include "lum/types.h"

#include <string>
#include <vector>

namespace tessel::test {

/// Counts the memory that the program takes with `new`, and refuses more than `most` bytes above what it had
/// at the start: std::bad_alloc then. Where limitAddressSpace() can make it, the system refuses as well,
/// whatever the memory is taken with. One at a time, in a program of one thread.
class CMemoryLimit {
public:
    explicit CMemoryLimit(lum::int64 mostBytes);
    ~CMemoryLimit();
    CMemoryLimit(const CMemoryLimit&) = delete;
    CMemoryLimit& operator=(const CMemoryLimit&) = delete;

    /// The most bytes that were in use at once, above those at the start.
    lum::int64 getPeak() const noexcept;
    /// True when more was asked for than is allowed.
    bool wasExceeded() const noexcept;

private:
    lum::int64 m_start = 0;
};

/// Looks through every block of memory when it is given back, as long as it lives, for any of some secrets.
/// One at a time.
class CFreedMemorySearch {
public:
    explicit CFreedMemorySearch(std::vector<std::string> secrets);
    ~CFreedMemorySearch();
    CFreedMemorySearch(const CFreedMemorySearch&) = delete;
    CFreedMemorySearch& operator=(const CFreedMemorySearch&) = delete;

    /// How many blocks were looked through.
    lum::int64 getBlockCount() const noexcept;
    /// How many of them held the secret of that index.
    lum::int64 getFindCount(std::size_t secret) const;

private:
    std::vector<std::string> m_secrets;
};

} // namespace tessel::test
