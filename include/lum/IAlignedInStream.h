#pragma once

#include "lum/IAlignedStreamBase.h"
#include "lum/IInStream.h"

namespace lum {

/// A stream for reading that tells its alignments.
class TESSEL_EXPORT IAlignedInStream : public virtual IAlignedStreamBase, public virtual IInStream {};

} // namespace lum
