#include "tessel/CVMDKDataPreparer.h"

#include "grain/GrainRecord.h"
#include "lum/CError.h"
#include "lum/CInvalidArgError.h"
#include "lum/Numbers.h"

#include <algorithm>

namespace tessel {

CVMDKDataPreparer::CVMDKDataPreparer(int64 grainSizeSectors, bool compress, int compressionLevel)
    : m_grainSizeSectors(grainSizeSectors),
      m_grainSizeBytes(grainSizeSectors * vmdkSectorSize),
      m_worstCaseSizeSectors(grainSizeSectors) {
    if (!compress)
        return;
    m_compressor = new CVMDKCompressor(compressionLevel);
    m_compressedSizeUpperBound =
        m_compressor->getCompressedSizeUpperBound(static_cast<int>(m_grainSizeBytes));
    m_worstCaseSizeSectors = divideRoundingUp(m_compressedSizeUpperBound + recordHeadSize, vmdkSectorSize);
}

int64 CVMDKDataPreparer::getCompressFallbackCount() const noexcept {
    return m_compressor ? m_compressor->getCompressFallbackCount() : 0;
}

P<TBuffer<unsigned char>> CVMDKDataPreparer::prepareGrainData(TBuffer<unsigned char>* pSourceBuffer,
                                                              int64 grainIndex,
                                                              TBuffer<unsigned char>* pAuxBuffer) {
    static const char* const method = "CVMDKDataPreparer::prepareGrainData";
    if (!pSourceBuffer)
        throw CInvalidArgError(method, "pSourceBuffer must not be NULL");
    if (!pAuxBuffer)
        throw CInvalidArgError(method, "pAuxBuffer must not be NULL");
    if (pSourceBuffer->getUsed() > m_grainSizeBytes)
        throw CInvalidArgError(method, "source buffer is bigger than grain size (" +
                                           toDecimal(pSourceBuffer->getUsed()) + ").");
    if (!m_compressor)
        return pSourceBuffer;

    pAuxBuffer->setUsed(m_worstCaseSizeSectors * vmdkSectorSize);
    const int size =
        m_compressor->compressSingleStep(pSourceBuffer->getData(), static_cast<int>(pSourceBuffer->getUsed()),
                                         pAuxBuffer->getData() + recordHeadSize, m_compressedSizeUpperBound);
    if (size < 0)
        throw CError("Internal error: compressed VMDK grain data exceeds its upper bound.");
    storeGrainRecordHead(pAuxBuffer->getData(),
                         {static_cast<uint64>(m_grainSizeSectors * grainIndex), static_cast<uint32>(size)});
    pAuxBuffer->setUsed(recordHeadSize + size);
    padToSector(*pAuxBuffer);
    return pAuxBuffer;
}

void CVMDKDataPreparer::patchGrainIndexInPreparedGrainData(TBuffer<unsigned char>& preparedData,
                                                           int64 grainIndex) {
    if (!m_compressor)
        return;
    if (preparedData.getUsed() < recordHeadSize)
        throw CInvalidArgError("CVMDKDataPreparer::patchGrainIndexInPreparedGrainData",
                               "Prepared data is too short for a compressed grain (" +
                                   toDecimal(preparedData.getUsed()) + " bytes).");
    storeLittleEndian<uint64>(preparedData.getData() + grainRecordPosition.offset,
                              static_cast<uint64>(m_grainSizeSectors * grainIndex));
}

P<TBuffer<unsigned char>> CVMDKDataPreparer::unprepareGrainData(TBuffer<unsigned char>* pPreparedBuffer,
                                                                TBuffer<unsigned char>* pAuxBuffer) {
    static const char* const method = "CVMDKDataPreparer::unprepareGrainData";
    if (!pPreparedBuffer)
        throw CInvalidArgError(method, "pPreparedBuffer must not be NULL");
    if (!m_compressor)
        return pPreparedBuffer;
    if (!pAuxBuffer)
        throw CInvalidArgError(method, "pAuxBuffer must not be NULL");
    if (pPreparedBuffer->getUsed() < recordHeadSize)
        throw CInvalidArgError(method, "Prepared data is too short for a compressed grain (" +
                                           toDecimal(pPreparedBuffer->getUsed()) + " bytes).");
    pAuxBuffer->setUsed(m_grainSizeBytes);
    const int size =
        m_compressor->decompressSingleStep(pPreparedBuffer->getData() + recordHeadSize,
                                           static_cast<int>(pPreparedBuffer->getUsed() - recordHeadSize),
                                           pAuxBuffer->getData(), static_cast<int>(m_grainSizeBytes));
    std::fill(pAuxBuffer->getData() + size, pAuxBuffer->getData() + m_grainSizeBytes, 0);
    return pAuxBuffer;
}

void CVMDKDataPreparer::verifyPreparedGrainData(const TConstBufferSlice<unsigned char>& data,
                                                const char* method,
                                                const std::function<CURI()>& getURI) const {
    const int64 size = data.getLength();
    if (size == 0)
        throw CInvalidArgError(method,
                               "CVMDKGrain::writePreparedGrainData called with zero-length prepared data.",
                               CProps().add("uri", getURI().toString(true)));
    const auto refuse = [&](const String& problem) {
        throw CInvalidArgError(method, "Invalid prepared grain data: " + problem + ".",
                               CProps().add("uri", getURI().toString(true)).add("preparedSize", size));
    };
    if (!m_compressor) {
        if (size != m_grainSizeBytes)
            refuse("an uncompressed grain has " + toDecimal(m_grainSizeBytes) + " bytes, not " +
                   toDecimal(size));
        return;
    }
    const int64 worstCase = m_worstCaseSizeSectors * vmdkSectorSize;
    if (size < recordHeadSize || size > worstCase)
        refuse("a compressed grain has " + toDecimal(recordHeadSize) + " to " + toDecimal(worstCase) +
               " bytes, not " + toDecimal(size));
    const int64 held = size - recordHeadSize;
    const UGrainRecordHead head = loadGrainRecordHead(data.getData());
    if (head.compressedSize > held)
        refuse("its length field says " + toDecimal(head.compressedSize) + " bytes, but " + toDecimal(held) +
               " follow");
}

} // namespace tessel
