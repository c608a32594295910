#pragma once

#include "tessel/CVMDKDisk.h"

#include <mutex>

namespace tessel::cli {

/// What the parents of a new child hold, for threads that look at the same time. They read one after the
/// other.
class CParentGrains {
public:
    /// `parent` is used by nobody else as long as this lives.
    explicit CParentGrains(P<CVMDKDisk> parent) : m_parent(std::move(parent)) {}

    /// Fills `bytes` with those from `position` on, or returns false where no parent holds any of them.
    /// Requires: sizeBytes fits the parent. Throws: what CVMDKDisk::read throws.
    bool read(int64 position, int64 sizeBytes, TBuffer<unsigned char>& bytes);

private:
    bool isHeld(int64 position, int64 end);

    std::mutex m_mutex;
    P<CVMDKDisk> m_parent;
    UVMDKGrainRun m_run = {0, 0, UVMDKGrainRun::nowhere};
};

} // namespace tessel::cli
