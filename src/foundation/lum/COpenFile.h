#pragma once

#include "lum/CBase.h"
#include "lum/CURI.h"
#include "lum/IStreamLock.h"
#include "lum/P.h"

namespace lum {

/// An open file below a CFileStream: transfers at given positions, no position of its own. The system's
/// files and those in memory each derive from it. Arguments are checked before they arrive here;
/// positions, sizes and lengths are bytes and never negative, and their sums fit 64 bits.
class COpenFile : public CBase {
public:
    COpenFile(const COpenFile&) = delete;
    COpenFile& operator=(const COpenFile&) = delete;

    const CURI& getURI() const noexcept { return m_uri; }

    virtual int64 getLength() const = 0;
    /// Reads until `count` bytes are there or the end is met; returns how many.
    virtual int read(int64 position, void* buffer, int count) = 0;
    virtual void write(int64 position, const void* data, int size) = 0;
    virtual void setLength(int64 length) = 0;
    /// Makes durable what was written through this open file.
    virtual void flush() = 0;

    /// See IStreamBase::lockRange. The lock ends with the file's being open.
    P<IStreamLock> lockRange(int64 start, int64 length, bool exclusive);
    /// Lets go of the file and of every lock on it, also when it throws. Called once.
    void close();

protected:
    explicit COpenFile(const CURI& uri) : m_uri(uri) {}

    /// Locks the positions from `start` up to, not including, `end` (INT64_MAX: all there are). False
    /// when another open file excludes it.
    virtual bool tryLock(int64 start, int64 end, bool exclusive) = 0;
    virtual void unlock(int64 start, int64 end) noexcept = 0;
    virtual void closeFile() = 0;

private:
    class CLock;
    struct Range {
        int64 start;
        int64 end;
    };

    void letGo(const Range& range) noexcept;

    CURI m_uri;
    /// What is locked through this open file. Ranges do not overlap: systems keep one state per byte
    /// and open file, so that letting go of one lock would break the other.
    TArray<Range> m_locked;
};

} // namespace lum
