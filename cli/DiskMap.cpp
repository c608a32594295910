#include "DiskMap.h"

namespace tessel::cli {

bool continuesRun(const UVMDKStoredRun& run, const UVMDKStoredRun& next) {
    if (run.layer != next.layer || run.isCompressed != next.isCompressed)
        return false;
    if (run.layer == UVMDKGrainRun::nowhere)
        return true;
    const bool follows = run.isCompressed || run.filePosition + run.sizeBytes == next.filePosition;
    return follows && run.file == next.file;
}

} // namespace tessel::cli
