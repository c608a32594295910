#pragma once

#include "lum/types.h"

#include <filesystem>
#include <fstream>
#include <string>

namespace tessel::test {

using lum::int64;
using lum::uint32;
using lum::uint64;

/// What the header of an extent claims, in sectors where nothing else is said.
struct UBombHeader {
    uint32 flags = 1;
    uint64 capacity = 65536;
    uint64 grainSize = 128;
    uint64 descriptorPosition = 1;
    uint64 descriptorSize = 20;
    uint32 entriesPerTable = 512;
    uint64 redundantDirectory = 0;
    uint64 directory = 32;
    uint64 overhead = 64;

    static constexpr uint32 redundant = 2;
    static constexpr uint32 compressed = 0x30001;
};

/// A file that is written piece by piece; what is not written is a hole.
class CBombFile {
public:
    explicit CBombFile(const std::filesystem::path& path);

    void put(int64 position, const std::string& bytes);
    void put32(int64 position, uint32 value);
    /// The same number many times.
    void fill32(int64 position, int64 count, uint32 value);
    void putHeader(const UBombHeader& header);
    void setLength(int64 length);

private:
    std::filesystem::path m_path;
    std::fstream m_file;
};

/// Little-endian bytes.
std::string littleEndian(uint64 value, int bytes);
/// A descriptor of a disk without a parent.
std::string describeDisk(const std::string& createType, const std::string& extentLines);
/// That of a disk in the one file "disk.vmdk".
std::string describeSingle(uint64 sectors, const std::string& createType = "monolithicSparse");

} // namespace tessel::test
