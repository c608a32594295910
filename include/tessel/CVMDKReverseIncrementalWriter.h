#pragma once

#include "lum/TPathImpl.h"
#include "tessel/CVMDKDisk.h"

namespace tessel {

/// A disk together with grains whose writing was postponed. It holds data only: copies and moves take
/// every member, pointers shared.
class TESSEL_EXPORT CVMDKReverseIncrementalWriter : public CBase {
public:
    /// A grain to be written later. The meaning of the two numbers is the user's.
    struct UPostponedGrain {
        int64 first = 0;
        P<TBuffer<unsigned char>> data;
        int64 second = 0;
    };

    CVMDKReverseIncrementalWriter();
    CVMDKReverseIncrementalWriter(const CVMDKReverseIncrementalWriter& other);
    CVMDKReverseIncrementalWriter(CVMDKReverseIncrementalWriter&& other) noexcept;
    CVMDKReverseIncrementalWriter& operator=(const CVMDKReverseIncrementalWriter& other);
    CVMDKReverseIncrementalWriter& operator=(CVMDKReverseIncrementalWriter&& other) noexcept;
    ~CVMDKReverseIncrementalWriter() override;

    CWindowsPath firstPath;
    CWindowsPath secondPath;
    P<CVMDKDisk> disk;
    TList<UPostponedGrain> postponedGrains;
    int64 value = 0;
};

} // namespace tessel
