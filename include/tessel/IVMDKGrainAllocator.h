#pragma once

#include "tessel/types.h"

namespace tessel {

/// Finds slots for newly written grains.
class TESSEL_EXPORT IVMDKGrainAllocator : public virtual IBase {
public:
    /// Writes what belongs behind the newest slot.
    virtual void flushChangesToStream() = 0;
    /// Writes a grain's stored data (bytes) into a new slot, names the slot in the grain directory and
    /// returns its first sector. `grainIndex` counts within the extent.
    virtual int64 allocNewGrain(int64 grainIndex, const void* data, int dataSize, int slotSizeSectors) = 0;
    /// The same for part of a buffer.
    virtual int64 allocNewGrainKeepBuffer(int64 grainIndex, const TConstBufferSlice<unsigned char>& data,
                                          int slotSizeSectors) = 0;
};

} // namespace tessel
