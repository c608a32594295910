#pragma once

#include "CPiece.h"

namespace tessel::cli {

/// A run of bytes of a source: data to be read, or zeros that need not be.
struct USourceRun {
    int64 sizeBytes; ///< at least 1
    bool isData;
};

/// Where a copy comes from. Read from the start to the end, nothing twice, by one thread at a time.
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

    /// The size of the grains that readPiece may leave in prepared form; 0 when it leaves none.
    virtual int64 getStoredGrainSizeBytes() const { return 0; }
    /// Reads `count` bytes into a piece of data, from its position on, as read does.
    virtual int readPiece(CPiece& piece, int count) {
        return read(piece.getPosition(), piece.getBytes(), count);
    }
    /// Turns stored grains of a piece into plain bytes: all, or only those that a sink could not take as they
    /// are, or need not store. Called by any thread, also while others are at it and while the source is
    /// read.
    virtual void unpack(CPiece&, bool /*all*/) {}
};

} // namespace tessel::cli
