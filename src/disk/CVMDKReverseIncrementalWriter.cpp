#include "tessel/CVMDKReverseIncrementalWriter.h"

namespace tessel {

CVMDKReverseIncrementalWriter::CVMDKReverseIncrementalWriter() = default;

CVMDKReverseIncrementalWriter::CVMDKReverseIncrementalWriter(const CVMDKReverseIncrementalWriter& other)
    : CBase(other),
      firstPath(other.firstPath),
      secondPath(other.secondPath),
      disk(other.disk),
      postponedGrains(other.postponedGrains),
      value(other.value) {}

CVMDKReverseIncrementalWriter::CVMDKReverseIncrementalWriter(CVMDKReverseIncrementalWriter&& other) noexcept
    : CBase(),
      firstPath(std::move(other.firstPath)),
      secondPath(std::move(other.secondPath)),
      disk(std::move(other.disk)),
      postponedGrains(std::move(other.postponedGrains)),
      value(other.value) {}

CVMDKReverseIncrementalWriter&
CVMDKReverseIncrementalWriter::operator=(const CVMDKReverseIncrementalWriter& other) = default;

CVMDKReverseIncrementalWriter&
CVMDKReverseIncrementalWriter::operator=(CVMDKReverseIncrementalWriter&& other) noexcept = default;

CVMDKReverseIncrementalWriter::~CVMDKReverseIncrementalWriter() = default;

} // namespace tessel
