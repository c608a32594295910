#pragma once

#include "lum/IBase.h"
#include "lum/String.h"

namespace lum {

/// Compresses whole buffers. Sizes are bytes; source and destination never overlap.
class TESSEL_EXPORT ISimpleCompressor : public virtual IBase {
public:
    /// What this is, for people: method, engine and level.
    virtual String getInternalDesc() = 0;
    /// The most that compressing `sourceSize` bytes can give.
    virtual int getCompressedSizeUpperBound(int sourceSize) const = 0;
    /// Compresses the source as one whole stream; returns its size, or -1 when it does not fit.
    /// Throws: CError when the engine fails.
    virtual int compressSingleStep(const void* source, int sourceSize, void* dest, int destCapacity) = 0;
    /// Undoes it: reads one whole stream, ignores what follows it, returns the size produced.
    /// Throws: CIOError 5 when the data are damaged, cut short, or more than `destCapacity`.
    virtual int decompressSingleStep(const void* source, int sourceSize, void* dest, int destCapacity) = 0;
};

} // namespace lum
