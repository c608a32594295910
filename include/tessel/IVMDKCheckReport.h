#pragma once

#include "lum/IBase.h"
#include "tessel/UVMDKCheckFinding.h"

namespace tessel {

/// Takes what CVMDKDiskChecker finds. Whatever a method throws ends the check and reaches its caller.
class TESSEL_EXPORT IVMDKCheckReport : public virtual IBase {
public:
    /// Called for one finding after the other: those of the disk first, then extent by extent. A file can
    /// hold as many as it has grains and tables; nobody else keeps them.
    virtual void addFinding(const UVMDKCheckFinding& finding) = 0;

    /// Called before each grain table and each grain whose contents are looked at. `position`: how far the
    /// check has come, as a byte of the disk.
    virtual void onProgress(int64 position) = 0;
};

} // namespace tessel
