#include "tessel/CVMDKSpaceInfo.h"

namespace tessel {

void CVMDKSpaceInfo::addSpaceInfo(const CVMDKSpaceInfo& other) noexcept {
    m_payloadSize += other.m_payloadSize;
    m_payloadSizeInFile += other.m_payloadSizeInFile;
    m_headerSize += other.m_headerSize;
    m_deadSpaceSize += other.m_deadSpaceSize;
}

} // namespace tessel
