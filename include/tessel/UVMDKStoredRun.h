#pragma once

#include "lum/CURI.h"
#include "tessel/UVMDKGrainRun.h"

namespace tessel {

/// A run of bytes of a disk that are stored in one place, and where that is.
struct UVMDKStoredRun {
    int64 position;  ///< first byte in the disk
    int64 sizeBytes; ///< at least 1
    int layer;       ///< as UVMDKGrainRun

    /// The extent file that holds the run; empty for what is nowhere.
    CURI file = {};
    /// Grains of the run are compressed, each for itself.
    bool isCompressed = false;
    /// What is in the file are ciphered bytes.
    bool isEncrypted = false;
    /// Where in the file the run's first byte is: of plain grains, which then follow each other there. -1 for
    /// compressed grains, each of which has a place of its own, and for what is nowhere.
    int64 filePosition = -1;
    /// Bytes that the run takes in the file: of compressed grains the slots of all that it touches.
    int64 storedBytes = 0;
};

} // namespace tessel
