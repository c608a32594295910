#pragma once

#include "tessel/types.h"

namespace tessel {

/// A run of bytes of a disk that come from one place.
struct UVMDKGrainRun {
    /// Held by no disk of the chain: zeros.
    static constexpr int nowhere = -1;

    int64 position;  ///< first byte
    int64 sizeBytes; ///< at least 1
    int layer;       ///< 0: the disk itself, 1: its parent, and so on; or nowhere
    /// Whole grains of the run can be read in prepared form: every disk on the way to the layer has grains of
    /// the same size and kind, and extents that begin where grains do.
    bool isStoredAlike = false;
};

} // namespace tessel
