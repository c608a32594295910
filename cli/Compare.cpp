#include "Compare.h"

#include "lum/Numbers.h"
#include "platform.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace tessel::cli {

namespace {

constexpr int64 pieceSize = 1 << 20;

/// One of the two images, read piece by piece.
class CSide {
public:
    explicit CSide(ISource* source)
        : m_source(source), m_size(source->getSizeBytes()), m_bytes(static_cast<std::size_t>(pieceSize)) {}

    int64 getSizeBytes() const noexcept { return m_size; }

    /// What stands at a position that is not before the one asked for last.
    USourceRun findRun(int64 position) {
        if (position >= m_size)
            return {INT64_MAX - position, false};
        if (position >= m_runEnd) {
            const USourceRun run = m_source->findRun(position);
            m_isData = run.isData;
            m_runEnd = run.sizeBytes < m_size - position ? position + run.sizeBytes : m_size;
        }
        return {m_runEnd - position, m_isData};
    }

    void read(int64 position, int64 count) {
        m_source->read(position, m_bytes.data(), static_cast<int>(count));
    }
    void setZeros(int64 count) { std::fill_n(m_bytes.begin(), count, static_cast<unsigned char>(0)); }

    const unsigned char* getBytes() const noexcept { return m_bytes.data(); }

private:
    ISource* m_source;
    int64 m_size;
    int64 m_runEnd = 0;
    bool m_isData = false;
    std::vector<unsigned char> m_bytes;
};

class CComparing {
public:
    CComparing(ISource& a, ISource& b, const std::function<bool(const UDifference&)>& tell)
        : m_a(&a), m_b(&b), m_tell(tell) {}

    UComparison run(CProgress& progress) {
        const int64 size = std::max(m_a.getSizeBytes(), m_b.getSizeBytes());
        for (int64 position = 0; position < size && !m_isEnough; progress.advanceTo(position)) {
            throwIfInterrupted();
            const USourceRun a = m_a.findRun(position);
            const USourceRun b = m_b.findRun(position);
            int64 count = std::min({a.sizeBytes, b.sizeBytes, size - position});
            if (a.isData || b.isData) {
                // Pieces begin where units do, unless a run begins within one.
                count = std::min(count, pieceSize - position % pieceSize);
                compare(position, count, a.isData, b.isData);
            }
            position += count;
            tellRangeThatEnded(position);
        }
        tellRange();
        return m_result;
    }

private:
    void compare(int64 position, int64 count, bool isDataA, bool isDataB) {
        if (isDataA)
            m_a.read(position, count);
        if (isDataB)
            m_b.read(position, count);
        if (!isDataA || !isDataB) {
            const CSide& held = isDataA ? m_a : m_b;
            if (isZeroMemory(held.getBytes(), static_cast<std::size_t>(count)))
                return;
            (isDataA ? m_b : m_a).setZeros(count);
        } else if (std::memcmp(m_a.getBytes(), m_b.getBytes(), static_cast<std::size_t>(count)) == 0) {
            return;
        }
        findDifferences(position, count);
    }

    void findDifferences(int64 position, int64 count) {
        const unsigned char* const a = m_a.getBytes();
        const unsigned char* const b = m_b.getBytes();
        for (int64 at = 0; at < count && !m_isEnough;) {
            const int64 end = std::min(count, at + comparedUnit - (position + at) % comparedUnit);
            if (std::memcmp(a + at, b + at, static_cast<std::size_t>(end - at)) != 0) {
                if (m_result.firstDifference < 0)
                    m_result.firstDifference = position + (std::mismatch(a + at, a + end, b + at).first - a);
                add(position + at, position + end);
            }
            at = end;
            tellRangeThatEnded(position + at);
        }
    }

    /// A unit, or the part of one that a piece holds.
    void add(int64 start, int64 end) {
        const int64 unitStart = start / comparedUnit * comparedUnit;
        const int64 unitEnd =
            std::min(std::max(m_a.getSizeBytes(), m_b.getSizeBytes()), roundUp(end, comparedUnit));
        if (m_range.sizeBytes > 0 && m_range.position + m_range.sizeBytes >= unitStart) {
            m_range.sizeBytes = unitEnd - m_range.position;
            return;
        }
        tellRange();
        m_range = {unitStart, unitEnd - unitStart};
    }

    /// A whole unit without a difference ends a range; of a part of one the rest may still belong to it.
    void tellRangeThatEnded(int64 comparedEnd) {
        if (comparedEnd - (m_range.position + m_range.sizeBytes) >= comparedUnit)
            tellRange();
    }

    void tellRange() {
        if (m_range.sizeBytes == 0 || m_isEnough)
            return;
        ++m_result.rangeCount;
        m_result.differingBytes += m_range.sizeBytes;
        m_isEnough = !m_tell(m_range);
        m_range.sizeBytes = 0;
    }

    CSide m_a;
    CSide m_b;
    const std::function<bool(const UDifference&)>& m_tell;
    UDifference m_range = {0, 0}; ///< not told yet
    UComparison m_result;
    bool m_isEnough = false;
};

} // namespace

UComparison compareSources(ISource& a, ISource& b, CProgress& progress,
                           const std::function<bool(const UDifference&)>& tell) {
    return CComparing(a, b, tell).run(progress);
}

} // namespace tessel::cli
