#pragma once

#include "lum/CBase.h"
#include "tessel/types.h"

namespace tessel {

/// One line of a descriptor.
class TESSEL_EXPORT CVMDKDescriptorEntry : public CBase {
public:
    /// The line as it is written, without a line end.
    virtual String toString() const = 0;
    /// A new, independent copy.
    virtual P<CVMDKDescriptorEntry> cloneDescriptorEntry() const = 0;
};

} // namespace tessel
