#pragma once

#include "lum/CURI.h"
#include "lum/IStreamLock.h"
#include "lum/P.h"

namespace lum {

/// A row of bytes with a current position. One thread at a time uses a stream.
class TESSEL_EXPORT IStreamBase : public virtual IBase {
public:
    /// Whom a lock keeps out: writers, or everybody.
    enum LockType { LockType_Shared = 1, LockType_Exclusive = 2 };

    /// Length in bytes, what is written but not yet flushed included.
    virtual int64 getLength() const = 0;
    /// Current position in bytes from the start.
    virtual int64 getPosition() const = 0;
    /// The file that this stream is on; empty for one that is on none.
    virtual CURI getURI() = 0;
    /// Sets the position. Positions past the end are legal: reading there finds the end, writing there
    /// makes the gap read as zeros.
    /// Throws: CIOError 7 for a negative position, which then stays as it was.
    virtual void seek(int64 position) = 0;
    /// Locks `length` bytes from `start` on for this open file, without waiting. Locks of two open
    /// files exclude each other whichever process holds them; a length of 0 reaches to the end of all
    /// positions. Ranges locked through one stream may not overlap. A lock ends with its stream.
    /// Throws: CFileSystemError: Problem_Locked when another open file excludes it or this stream has
    /// locked part of it, Problem_AccessDenied for an exclusive lock on a stream that only reads,
    /// Problem_NotSupported.
    virtual P<IStreamLock> lockRange(int64 start, int64 length, LockType type) = 0;
    /// Writes what is pending and lets go of the file, also when it throws. A second call does nothing;
    /// anything but getURI() afterwards fails with CIOError 10.
    /// Throws: CIOError 2 or 8, also for an earlier write that failed and was not told by a flush().
    virtual void close() = 0;
};

} // namespace lum
