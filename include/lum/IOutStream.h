#pragma once

#include "lum/IStreamBase.h"
#include "lum/IWriteBarrier.h"
#include "lum/TConstBufferSlice.h"

namespace lum {

/// The writing side of a stream.
///
/// A write that failed is reported by its own call where it fails there, and once more by the next
/// flush(), so that a caller who could not listen (a destructor) hides nothing.
class TESSEL_EXPORT IOutStream : public virtual IStreamBase {
public:
    /// Writes all `size` bytes at the current position. `barrier` may be null.
    /// Throws: CIOError 2 or 8 ("uri", "position", "bytesToWrite"); how much was written is then unknown.
    virtual void write(const void* data, int size, IWriteBarrier* barrier = nullptr) = 0;
    /// The same. The buffer may be changed as soon as the call has returned.
    virtual void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                                 IWriteBarrier* barrier = nullptr) = 0;
    /// A barrier behind everything written so far; `parent` may be null.
    virtual P<IWriteBarrier> createWriteBarrier(IWriteBarrier* parent) = 0;
    /// Makes everything written so far durable: when this returns, it survives a loss of power.
    /// Throws: CIOError 2 or 8, also for an earlier write that failed.
    virtual void flush() = 0;
    /// Cuts the stream or lengthens it with zeros. The position stays.
    virtual void setLength(int64 length) = 0;
};

} // namespace lum
