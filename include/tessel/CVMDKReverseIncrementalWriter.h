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
        /// A number of the user's.
        int64 first = 0;
        /// The grain's bytes, shared by all copies.
        P<TBuffer<unsigned char>> data;
        /// Another number of the user's.
        int64 second = 0;
    };

    CVMDKReverseIncrementalWriter();
    /// Shares the disk and the grains' bytes.
    CVMDKReverseIncrementalWriter(const CVMDKReverseIncrementalWriter& other);
    /// Takes over every member.
    CVMDKReverseIncrementalWriter(CVMDKReverseIncrementalWriter&& other) noexcept;
    /// As copying.
    CVMDKReverseIncrementalWriter& operator=(const CVMDKReverseIncrementalWriter& other);
    /// As moving.
    CVMDKReverseIncrementalWriter& operator=(CVMDKReverseIncrementalWriter&& other) noexcept;
    ~CVMDKReverseIncrementalWriter() override;

    /// A path of the user's.
    CWindowsPath firstPath;
    /// Another path of the user's.
    CWindowsPath secondPath;
    /// The disk that is written to; may be null.
    P<CVMDKDisk> disk;
    /// What is still to be written, in the user's order.
    TList<UPostponedGrain> postponedGrains;
    /// A number of the user's.
    int64 value = 0;
};

} // namespace tessel
