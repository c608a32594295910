#pragma once

#include "lum/CBase.h"
#include "lum/IWriteBarrier.h"

namespace lum {

/// The barrier of a stream that keeps the order anyway: it does nothing.
class TESSEL_EXPORT CDummyWriteBarrier : public CBase, public IWriteBarrier {};

} // namespace lum
