#include "CMeasureSink.h"

#include <algorithm>

namespace tessel::cli {

void CMeasureSink::count(int64 position, const unsigned char* bytes, int64 size) {
    if (m_chooser->isStored(position, bytes, size))
        m_storedBytes[m_plan->findExtent(position)] += m_plan->grainSizeBytes;
    m_counted = position + m_plan->grainSizeBytes;
}

void CMeasureSink::write(CPiece& piece) {
    const int64 grainSize = m_plan->grainSizeBytes;
    for (int64 at = 0; at < piece.getSizeBytes(); at += grainSize)
        count(piece.getPosition() + at, piece.getBytes() + at,
              std::min(grainSize, piece.getSizeBytes() - at)); // only zeros follow a part of a grain
}

void CMeasureSink::writeZeros(int64 position, int64 sizeBytes) {
    const int64 end = position + sizeBytes;
    if (!m_chooser->hasParent())
        return;
    // A grain may have been counted with what stands before the zeros.
    position = std::max(position, m_counted);
    while (position < end) {
        bool isHeld = false;
        const int64 runEnd = m_chooser->findRunEnd(position, end, isHeld);
        for (; isHeld && position < runEnd; position = m_counted)
            count(position, nullptr, 0);
        position = std::max(position, runEnd);
    }
}

} // namespace tessel::cli
