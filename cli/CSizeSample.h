#pragma once

#include "CGrainChooser.h"
#include "CPreparerPool.h"
#include "CProgress.h"
#include "ISource.h"
#include "NewDiskPlan.h"

#include <vector>

namespace tessel::cli {

/// Estimates what a compressed disk would store, by preparing a sample of its grains: of as many parts of
/// equal size as grains are looked at, one grain each, chosen as if by chance and each time the same.
class CSizeSample {
public:
    /// Grains that are looked at, at most.
    static constexpr int64 sampleSize = 2048;

    /// All are borrowed. Zeros follow the first `limit` bytes of the source, and behind its end. `level` as
    /// that of convert: -1 when grains may pass as the source stores them.
    CSizeSample(const UNewDiskPlan* plan, CGrainChooser* chooser, ISource* source, int64 limit, int level);

    /// Throws: what source and parent throw; CInterrupted.
    void take(CProgress& progress);

    /// Of each extent, estimated.
    const std::vector<int64>& getStoredBytes() const noexcept { return m_storedBytes; }
    /// In 19 of 20 cases the sum of all is right to within so many bytes.
    int64 getMarginBytes() const noexcept { return m_marginBytes; }

private:
    template <class Visit>
    void forEachCandidateRun(Visit visit);
    int64 measureGrain(int64 position);
    int64 getSlotBytes(int64 recordBytes) const;
    int64 findCandidatesEnd(int64 position, bool& isCandidate);

    const UNewDiskPlan* m_plan;
    CGrainChooser* m_chooser;
    ISource* m_source;
    bool m_passesStored;
    int64 m_limit;
    int64 m_grainSize;
    CPreparerPool m_preparers;
    CPiece m_piece;
    std::vector<int64> m_storedBytes;
    int64 m_marginBytes = 0;
};

} // namespace tessel::cli
