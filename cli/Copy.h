#pragma once

#include "CProgress.h"
#include "ISink.h"
#include "ISource.h"

namespace tessel::cli {

/// Every piece begins at a multiple of this and, but for the last one, ends there: a whole number of grains
/// as this library makes them, and of blocks of any file system.
constexpr int64 copyAlignment = 65536;
/// The most bytes of a piece of data.
constexpr int largestPiece = 1 << 20;
/// The most jobs of a copy.
constexpr int mostJobs = 64;

/// Copies `sizeBytes` bytes (-1: up to the end of the source); where the source is shorter, zeros follow.
/// Returns how many bytes came from the source. Throws: what source and sink throw, of several failures the
/// one that stands first in the copy; CInterrupted.
///
/// `jobs` threads work on it, 1 to mostJobs; with 1 no thread is started. Pieces are read in order by one of
/// them at a time, unpacked and prepared by all, and written in order by one at a time, so that the result
/// does not depend on how many there are. What is under way is bounded: two pieces per job and two more, each
/// with plain bytes and, where grains are compressed, records of about the same size. With more than 9 jobs
/// pieces are smaller, so that these are never more than 20 MiB each in all.
int64 copy(ISource& source, ISink& sink, int64 sizeBytes, int jobs, CProgress& progress);

} // namespace tessel::cli
