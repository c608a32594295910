#include "tessel/CVMDKCompressor.h"

#include "brook/CZLibCompressor.h"
#include "creek/CMiniZCompressor.h"
#include "lum/CError.h"
#include "lum/Numbers.h"
#include "tessel/CVMDKDataPreparer.h"

#include <algorithm>

namespace tessel {

CVMDKCompressor::CVMDKCompressor(int level)
    : m_level(level == -1 ? 1 : level), m_reference(new brook::CZLibCompressor(0)) {
    if (m_level == 0)
        m_main = m_reference;
    else
        m_main = new creek::CMiniZCompressor(m_level);
}

String CVMDKCompressor::getInternalDesc() {
    return "smart-" + m_main->getInternalDesc();
}

int CVMDKCompressor::getCompressedSizeUpperBound(int sourceSize) const {
    const int bound = m_reference->getCompressedSizeUpperBound(sourceSize);
    return std::max(bound,
                    static_cast<int>(roundUp(bound, vmdkSectorSize)) - CVMDKDataPreparer::recordHeadSize);
}

int CVMDKCompressor::compressSingleStep(const void* source, int sourceSize, void* dest, int destCapacity) {
    if (m_level == 0) // the reference compressor already, and nobody to take over
        return m_main->compressSingleStep(source, sourceSize, dest, destCapacity);
    int size = -1;
    try {
        size = m_main->compressSingleStep(source, sourceSize, dest, destCapacity);
    } catch (const CError&) { // NOLINT(bugprone-empty-catch): the reference compressor takes over
    }
    if (size != -1 && (size <= sourceSize || size <= getCompressedSizeUpperBound(sourceSize)))
        return size;
    ++m_fallbackCount;
    return m_reference->compressSingleStep(source, sourceSize, dest, destCapacity);
}

int CVMDKCompressor::decompressSingleStep(const void* source, int sourceSize, void* dest, int destCapacity) {
    return m_main->decompressSingleStep(source, sourceSize, dest, destCapacity);
}

} // namespace tessel
