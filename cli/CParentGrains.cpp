#include "CParentGrains.h"

namespace tessel::cli {

/// Grains of a parent may be smaller than those of the child.
bool CParentGrains::isHeld(int64 position, int64 end) {
    while (position < end) {
        if (position < m_run.position || position - m_run.position >= m_run.sizeBytes)
            m_run = m_parent->findGrainRun(position);
        if (m_run.layer != UVMDKGrainRun::nowhere)
            return true;
        position = m_run.position + m_run.sizeBytes;
    }
    return false;
}

bool CParentGrains::read(int64 position, int64 sizeBytes, TBuffer<unsigned char>& bytes) {
    const std::lock_guard lock(m_mutex);
    if (!isHeld(position, position + sizeBytes))
        return false;
    bytes.setUsed(sizeBytes);
    m_parent->seek(position);
    m_parent->read(bytes.getData(), static_cast<int>(sizeBytes));
    return true;
}

} // namespace tessel::cli
