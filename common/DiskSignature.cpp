#include "DiskSignature.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace tessel {

bool beginsLikeVMDK(const unsigned char* bytes, int count) {
    static constexpr char plain[] = "KDMV";
    static constexpr unsigned char encrypted[] = {0x45, 0x4B, 0x64, 0x05};
    static constexpr char text[] = "# Disk DescriptorFile";
    const auto beginsWith = [&](const void* wanted, std::size_t size) {
        return static_cast<std::size_t>(count) >= size && std::memcmp(bytes, wanted, size) == 0;
    };
    return beginsWith(plain, 4) || beginsWith(encrypted, 4) || beginsWith(text, sizeof text - 1);
}

bool isSurelyNoVMDK(const unsigned char* bytes, int count) {
    if (beginsLikeVMDK(bytes, count))
        return false;
    return std::any_of(bytes, bytes + count,
                       [](unsigned char c) { return c < ' ' && c != '\t' && c != '\r' && c != '\n'; });
}

} // namespace tessel
