#include "CGrainChooser.h"

#include "lum/Numbers.h"

#include <algorithm>

namespace tessel::cli {

CGrainChooser::CGrainChooser(CVMDKDisk* parent, int64 grainSizeBytes)
    : m_parent(parent), m_grainSize(grainSizeBytes) {}

bool CGrainChooser::isStored(int64 position, const unsigned char* bytes, int64 count) {
    if (!m_parent || !isHeldByParent(position))
        return bytes && !isZeroMemory(bytes, static_cast<std::size_t>(count));
    m_old.setUsed(m_grainSize);
    std::fill_n(m_old.getData(), m_grainSize, static_cast<unsigned char>(0));
    const int64 held = std::min(m_grainSize, m_parent->getSizeBytes() - position);
    m_parent->seek(position);
    m_parent->read(m_old.getData(), static_cast<int>(held));
    m_new.setUsed(m_grainSize);
    std::fill_n(m_new.getData(), m_grainSize, static_cast<unsigned char>(0));
    if (bytes)
        std::copy_n(bytes, count, m_new.getData());
    return !(m_new == m_old);
}

int64 CGrainChooser::findRunEnd(int64 position, int64 end, bool& isHeld) {
    isHeld = false;
    if (!m_parent || position >= m_parent->getSizeBytes())
        return end;
    const UVMDKGrainRun run = m_parent->findGrainRun(position);
    isHeld = run.layer != UVMDKGrainRun::nowhere;
    const int64 runEnd = run.position + run.sizeBytes;
    if (runEnd == m_parent->getSizeBytes() && !isHeld)
        return end;
    // Grains of a parent may be smaller: one that is held in part may be held.
    const int64 grainEnd = isHeld ? roundUp(runEnd, m_grainSize) : runEnd / m_grainSize * m_grainSize;
    if (grainEnd == position) { // the parent holds a later part of this grain
        isHeld = true;
        return std::min(end, position + m_grainSize);
    }
    return std::min(end, grainEnd);
}

bool CGrainChooser::isHeldByParent(int64 start) {
    const int64 end = std::min(start + m_grainSize, m_parent->getSizeBytes());
    for (int64 position = start; position < end;) {
        const UVMDKGrainRun run = m_parent->findGrainRun(position);
        if (run.layer != UVMDKGrainRun::nowhere)
            return true;
        position = run.position + run.sizeBytes;
    }
    return false;
}

} // namespace tessel::cli
