#pragma once

#include "tessel/types.h"

namespace tessel {

/// Marks a class as a disk.
class TESSEL_EXPORT IDisk : public virtual IBase {};

} // namespace tessel
