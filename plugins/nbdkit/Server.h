#pragma once

#include "tessel/types.h"

#include <string>

#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

namespace tessel::nbdkit {

/// A text as one line in UTF-8, without control characters.
std::string toServerLine(const String& text);

} // namespace tessel::nbdkit
