#pragma once

#include "tessel/types.h"

namespace tessel {

/// Where grains come from that an extent file does not hold: the parent disk. Positions are bytes from
/// the start of the whole disk.
class TESSEL_EXPORT IVMDKDataProvider : public virtual IBase {
public:
    /// Fills `buffer` with `size` bytes of contents.
    virtual void getData(int64 position, void* buffer, int size) = 0;
    /// The prepared form of the grain that begins at `position`, for a disk whose grains have
    /// `grainSizeBytes` and are `compressed` or not; replaces what `out` held.
    /// Throws: CError when the provider's grains are of another kind.
    virtual void getPreparedGrainData(int64 position, TBuffer<unsigned char>& out, int grainSizeBytes,
                                      bool compressed) = 0;
    /// Whether the grain that holds `position` was ever written.
    virtual bool isGrainWritten(int64 position) = 0;
};

} // namespace tessel
