#pragma once

#include "CDiskGrid.h"

#include <string>
#include <vector>

// The picture that `map` draws of a disk.

namespace tessel::cli {

/// What there is to be seen of a disk.
struct UDiskPicture {
    std::string name;
    /// "monolithicSparse" and so on.
    std::string kind;
    bool isCompressed;
    bool isEncrypted;
    int64 grainSizeBytes;
    /// The names of the parents, nearest first.
    std::vector<std::string> parents;
    // How the bytes of the disk's own files are used.
    int64 grainsInFileBytes;
    int64 metadataBytes;
    int64 deadSpaceBytes;
    CDiskGrid grid;

    int64 getInFileBytes() const noexcept { return grainsInFileBytes + metadataBytes + deadSpaceBytes; }
    /// "parent 1, base.vmdk" for the states of a grid from 1 on; "the disk itself" for 0.
    std::string nameOfState(int state) const;
    /// "20 GiB, streamOptimized, compressed, grains of 64 KiB".
    std::string describe() const;
};

/// Shades of compressed cells, by how far what they hold shrank.
constexpr int shadeCount = 5;
/// 0 for what takes up to a fifth of its size in the file, up to 4 for what takes more than four fifths.
int shadeOf(const CDiskGrid::UCell& cell);

/// The most cells of an SVG picture.
constexpr int mostSVGCells = 2048;
/// A picture in SVG 1.1: one image that needs nothing else.
std::string drawSVG(const UDiskPicture& picture);

/// The most cells of a picture in so many columns of text.
int mostBlockCells(int width);
/// A picture as lines of block characters, in colours, or without any escape sequence.
std::string drawBlocks(const UDiskPicture& picture, int width, bool coloured);

} // namespace tessel::cli
