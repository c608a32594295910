#pragma once

#include "tessel/types.h"

#include <string>

namespace tessel::cli {

/// Whether a compressed grain's record may pass from disk to disk without a look at the grain: it is built as
/// it must be, has at most `mostBytes`, and is not that of a grain of zeros, which need not be stored. The
/// last is told by the stream's checksum; now and then other grains have the same and are taken for it.
bool mayPassAsStored(const TBuffer<unsigned char>& record, int64 grainSizeBytes, int64 mostBytes);

/// Throws: CFailure when a compressed grain's record is not that of the grain at `position` of the disk
/// `name`: a copy would take it for that grain's, where nothing tells any more.
void verifyIsRecordOf(const std::string& name, int64 position, const TBuffer<unsigned char>& record);

} // namespace tessel::cli
