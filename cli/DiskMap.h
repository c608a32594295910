#pragma once

#include "CProgress.h"
#include "platform.h"
#include "tessel/CVMDKDisk.h"

// What `map` tells of a disk.

namespace tessel::cli {

/// Whether `next`, which begins where `run` ends, is stored so that both are one run.
bool continuesRun(const UVMDKStoredRun& run, const UVMDKStoredRun& next);

/// Calls `visit` with each run of a disk, from the start to the end, those that belong together as one.
/// However many there are, no more than two are in memory. Throws: what the library and `visit` throw;
/// CInterrupted.
template <class Visit>
void forEachStoredRun(CVMDKDisk& disk, CProgress& progress, Visit visit) {
    const int64 size = disk.getSizeBytes();
    UVMDKStoredRun run = disk.findStoredRun(0);
    for (int64 position = run.sizeBytes; position < size;) {
        throwIfInterrupted();
        const UVMDKStoredRun next = disk.findStoredRun(position);
        position += next.sizeBytes;
        progress.advanceTo(position);
        if (continuesRun(run, next)) {
            run.sizeBytes += next.sizeBytes;
            run.storedBytes += next.storedBytes;
        } else {
            visit(run);
            run = next;
        }
    }
    visit(run);
}

} // namespace tessel::cli
