#pragma once

#include "Progress.h"
#include "tessel/types.h"

namespace tessel::cli {

/// A run of bytes of a source: data to be read, or zeros that need not be.
struct USourceRun {
    int64 sizeBytes; ///< at least 1
    bool isData;
};

/// Where a copy comes from. Read from the start to the end, nothing twice.
class ISource {
public:
    ISource() = default;
    ISource(const ISource&) = delete;
    ISource& operator=(const ISource&) = delete;
    virtual ~ISource() = default;

    /// Bytes, or -1 when only the end tells.
    virtual int64 getSizeBytes() const = 0;
    /// What stands at `position`, which is below the size.
    virtual USourceRun findRun(int64 position) = 0;
    /// Reads `count` bytes, fewer only at the end of a source of unknown size; returns how many.
    virtual int read(int64 position, unsigned char* buffer, int count) = 0;
};

/// Where a copy goes to. Written from the start to the end, without gaps.
class ISink {
public:
    ISink() = default;
    ISink(const ISink&) = delete;
    ISink& operator=(const ISink&) = delete;
    virtual ~ISink() = default;

    /// `position` is a multiple of copyAlignment.
    virtual void write(int64 position, const unsigned char* data, int size) = 0;
    /// The same as writing zeros.
    virtual void writeZeros(int64 position, int64 sizeBytes) = 0;
    /// Everything is written; the copy has this size.
    virtual void finish(int64 sizeBytes) = 0;
};

/// Every transfer begins at a multiple of this and, but for the last one, ends there: a whole number of
/// grains as this library makes them, and of blocks of any file system.
constexpr int64 copyAlignment = 65536;
/// Bytes of a transfer.
constexpr int transferSize = 1 << 20;

/// Copies `sizeBytes` bytes (-1: up to the end of the source); where the source is shorter, zeros follow.
/// Returns how many bytes came from the source. Throws: what source and sink throw; CInterrupted.
int64 copy(ISource& source, ISink& sink, int64 sizeBytes, CProgress& progress);

} // namespace tessel::cli
