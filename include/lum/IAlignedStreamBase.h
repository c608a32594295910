#pragma once

#include "lum/IStreamBase.h"

namespace lum {

/// What a stream asks of positions and buffers. 1 means that anything goes.
class TESSEL_EXPORT IAlignedStreamBase : public virtual IStreamBase {
public:
    /// Positions and sizes of transfers must be multiples of this many bytes.
    virtual int getPositionAlignment() const = 0;
    /// Buffers must begin at multiples of this many bytes.
    virtual int getBufferAlignment() const = 0;
    /// Transfers at multiples of this many bytes are fastest.
    virtual int getBestPerformanceAlignment() const = 0;
};

} // namespace lum
