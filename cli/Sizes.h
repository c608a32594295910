#pragma once

#include "tessel/types.h"

#include <string>

namespace tessel::cli {

/// A number of bytes as people write it: plain, or with K, M, G, T or P behind it for powers of 1024
/// ("10M", "10MiB").
/// Throws: CUsageError, which begins with `what`, for anything else and for more than 2^63 - 1 bytes.
int64 parseSize(const std::string& text, const std::string& what);

/// For people: three or four significant digits and a unit, "1.5 GiB"; below 1024 whole bytes.
std::string formatSize(int64 bytes);
/// "1.5 GiB (1610612736 bytes)"; "512 bytes".
std::string formatSizeExactly(int64 bytes);

} // namespace tessel::cli
