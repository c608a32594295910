#pragma once

#include "CPiece.h"

namespace tessel::cli {

/// Where a copy goes to. Written from the start to the end, without gaps, by one thread at a time.
class ISink {
public:
    ISink() = default;
    ISink(const ISink&) = delete;
    ISink& operator=(const ISink&) = delete;
    virtual ~ISink() = default;

    /// Whether grains of this size may come as a source stores them.
    virtual bool takesStoredGrains(int64 /*grainSizeBytes*/) const { return false; }
    /// Does ahead of the writing what can be done without the target. Called by any thread, also while others
    /// are at it and while the sink is written to.
    virtual void prepare(CPiece&) {}
    /// Writes a piece of data, which was prepared. It begins at a multiple of copyAlignment.
    virtual void write(CPiece& piece) = 0;
    /// The same as writing zeros.
    virtual void writeZeros(int64 position, int64 sizeBytes) = 0;
    /// Everything is written; the copy has this size.
    virtual void finish(int64 sizeBytes) = 0;
};

} // namespace tessel::cli
