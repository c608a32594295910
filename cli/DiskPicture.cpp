#include "DiskPicture.h"

#include "Sizes.h"

#include <algorithm>

namespace tessel::cli {

std::string UDiskPicture::nameOfState(int state) const {
    if (state == 0)
        return "the disk itself";
    const auto index = static_cast<std::size_t>(state) - 1;
    if (state > CDiskGrid::tellableParents)
        return parents.size() > index + 1
                   ? "parents " + std::to_string(state) + " to " + std::to_string(parents.size())
                   : "parent " + std::to_string(state);
    return "parent " + std::to_string(state) + (index < parents.size() ? ", " + parents[index] : "");
}

std::string UDiskPicture::describe() const {
    return formatSize(grid.getTotal().sizeBytes) + ", " + kind + (isCompressed ? ", compressed" : "") +
           (isEncrypted ? ", encrypted" : "") + ", grains of " + formatSize(grainSizeBytes);
}

int shadeOf(const CDiskGrid::UCell& cell) {
    const int64 plain = cell.bytes[0];
    // Multiplied as doubles: a cell may hold more than a fifth of 2^63 bytes.
    const double share = plain > 0 ? static_cast<double>(cell.storedBytes) / static_cast<double>(plain) : 0;
    for (int shade = 0; shade < shadeCount - 1; ++shade)
        if (share * shadeCount <= shade + 1)
            return shade;
    return shadeCount - 1;
}

} // namespace tessel::cli
