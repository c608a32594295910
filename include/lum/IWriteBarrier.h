#pragma once

#include "lum/IBase.h"

namespace lum {

/// A point in the order of writes: what was written before it reaches the file before what names it.
/// Streams that write in order need none and ignore it.
class TESSEL_EXPORT IWriteBarrier : public virtual IBase {};

} // namespace lum
