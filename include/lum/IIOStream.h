#pragma once

#include "lum/IInStream.h"
#include "lum/IOutStream.h"

namespace lum {

/// A stream that is read and written.
class TESSEL_EXPORT IIOStream : public virtual IInStream, public virtual IOutStream {
public:
    /// What a stream may be used for. The numbers are stable.
    enum Access {
        Access_Read = 1,      ///< read only; the file must exist
        Access_ReadWrite = 3, ///< read and write; a missing file is created
    };
};

} // namespace lum
