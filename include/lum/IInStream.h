#pragma once

#include "lum/IStreamBase.h"

namespace lum {

/// The reading side of a stream. Counts are bytes and never negative.
class TESSEL_EXPORT IInStream : public virtual IStreamBase {
public:
    /// Reads exactly `count` bytes.
    /// Throws: CIOError 4 when there are fewer ("uri", "position", "bytesToRead"); the position and the
    /// contents of `buffer` are then unspecified. CIOError 1 when the system fails.
    virtual void read(void* buffer, int count) = 0;
    /// Reads until `count` bytes are there or the end is met; returns how many.
    virtual int readLax(void* buffer, int count) = 0;
    /// Reads what is there at once, at least one byte unless the end is met; returns how many.
    virtual int readAvailable(void* buffer, int count) = 0;
    /// Waits up to `timeoutMs` (-1: for ever) for bytes or the end; true when a read would not wait.
    virtual bool waitReadable(int timeoutMs) const = 0;
    /// True when nothing is left to read; may wait to find that out.
    virtual bool isEndOfStream() const = 0;
    /// 1 at the end, 0 before it, -1 when that cannot be told without waiting.
    virtual int isEndOfStream_NonBlocking() const = 0;
};

} // namespace lum
