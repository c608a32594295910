#include "CSizeSample.h"

#include "Errors.h"
#include "lum/Numbers.h"
#include "platform.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace tessel::cli {

CSizeSample::CSizeSample(const UNewDiskPlan* plan, CGrainChooser* chooser, ISource* source, int64 limit,
                         int level)
    : m_plan(plan),
      m_chooser(chooser),
      m_source(source),
      m_passesStored(level < 0 && !chooser->hasParent() &&
                     source->getStoredGrainSizeBytes() == plan->grainSizeBytes),
      m_limit(std::min(source->getSizeBytes(), limit)),
      m_grainSize(plan->grainSizeBytes),
      m_preparers(plan->grainSizeBytes, level),
      m_piece(static_cast<int>(plan->grainSizeBytes)),
      m_storedBytes(plan->extents.size()) {}

/// From a grain's start on, the end of the grains that may be stored, or of those that surely are not.
int64 CSizeSample::findCandidatesEnd(int64 position, bool& isCandidate) {
    isCandidate = false;
    int64 end = m_plan->sizeBytes;
    if (position < m_limit) {
        const USourceRun run = m_source->findRun(position);
        const int64 runEnd = run.sizeBytes < m_limit - position ? position + run.sizeBytes : m_limit;
        if (run.isData) {
            isCandidate = true;
            return std::min(end, roundUp(runEnd, m_grainSize));
        }
        if (runEnd < m_limit)
            end = std::min(end, runEnd / m_grainSize * m_grainSize);
        if (end == position) { // data begin within this grain
            isCandidate = true;
            return position + m_grainSize;
        }
    }
    return m_chooser->findRunEnd(position, end, isCandidate);
}

/// Calls `visit` with start and end of the runs of grains that may be stored.
template <class Visit>
void CSizeSample::forEachCandidateRun(Visit visit) {
    for (int64 position = 0; position < m_plan->sizeBytes;) {
        throwIfInterrupted();
        bool isCandidate = false;
        const int64 end = findCandidatesEnd(position, isCandidate);
        if (isCandidate)
            visit(position, end);
        position = end;
    }
}

/// Bytes that the grain takes in the file; 0 when it is not stored.
int64 CSizeSample::measureGrain(int64 position) {
    const int count = static_cast<int>(std::clamp<int64>(m_limit - position, 0, m_grainSize));
    m_piece.beginData(position);
    m_piece.setSize(count);
    if (count > 0) {
        m_source->readPiece(m_piece, count);
        m_source->unpack(m_piece, !m_passesStored);
    }
    if (count < m_grainSize)
        std::fill_n(m_piece.getBytes() + count, m_grainSize - count, static_cast<unsigned char>(0));
    if (!m_piece.getStored().empty())
        return getSlotBytes(m_piece.getStored().front().record->getUsed());
    if (!m_chooser->isStored(position, m_piece.getBytes(), m_grainSize))
        return 0;
    CPreparerPool::CLease worker(&m_preparers);
    worker.getPlain().assign(m_piece.getBytes(), m_grainSize);
    const P<TBuffer<unsigned char>> record(new TBuffer<unsigned char>);
    return getSlotBytes(
        worker.getPreparer().prepareGrainData(&worker.getPlain(), 0, record.get())->getUsed());
}

int64 CSizeSample::getSlotBytes(int64 recordBytes) const {
    return m_plan->isEncrypted ? getEncryptedSlotBytes(recordBytes) : roundUp(recordBytes, vmdkSectorSize);
}

void CSizeSample::take(CProgress& progress) {
    int64 grains = 0;
    forEachCandidateRun(
        [&](int64 start, int64 end) { grains += divideRoundingUp(end - start, m_grainSize); });
    const int64 wanted = std::min(grains, sampleSize);
    // Part i begins with the candidate i * grains / wanted.
    const auto startOf = [&](int64 part) {
        return part * (grains / wanted) + part * (grains % wanted) / wanted;
    };
    std::mt19937_64 chance(1); // NOLINT(cert-msc51-cpp): the same sample each time
    const auto choose = [&](int64 part) {
        const int64 first = startOf(part);
        const auto choices = static_cast<uint64>(startOf(part + 1) - first);
        return first + static_cast<int64>(chance() % choices);
    };
    std::vector<double> sums(m_storedBytes.size());
    double sum = 0;
    double sumOfSquares = 0;
    int64 part = 0;
    int64 passed = 0;
    int64 next = wanted > 0 ? choose(0) : grains;
    forEachCandidateRun([&](int64 start, int64 end) {
        const int64 count = divideRoundingUp(end - start, m_grainSize);
        for (; next < passed + count; next = ++part < wanted ? choose(part) : grains) {
            throwIfInterrupted();
            const int64 position = start + (next - passed) * m_grainSize;
            progress.advanceTo(position);
            const auto bytes = static_cast<double>(measureGrain(position));
            const auto stands = static_cast<double>(startOf(part + 1) - startOf(part)); // for so many grains
            sums[m_plan->findExtent(position)] += bytes * stands;
            sum += bytes;
            sumOfSquares += bytes * bytes;
        }
        passed += count;
    });
    for (std::size_t i = 0; i < sums.size(); ++i)
        m_storedBytes[i] = roundUp(static_cast<int64>(sums[i]), vmdkSectorSize);
    if (wanted < 2 || wanted == grains)
        return;
    const auto n = static_cast<double>(wanted);
    const auto all = static_cast<double>(grains);
    const double variance = std::max(0.0, (sumOfSquares - sum * sum / n) / (n - 1));
    m_marginBytes = static_cast<int64>(2 * all * std::sqrt(variance / n * (1 - n / all)));
}

} // namespace tessel::cli
