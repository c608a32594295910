#include "tessel/CVMDKNullExtentFile.h"

#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"

#include <algorithm>

namespace tessel {

CVMDKNullExtentFile::CVMDKNullExtentFile(const CURI& uri, int64 startGrainIndex, int64 grainSizeSectors,
                                         int64 capacitySectors, int64 sectorSize, bool compressed,
                                         int compressionSetting, IVMDKDataProvider* fallback)
    : m_uri(uri),
      m_startGrainIndex(startGrainIndex),
      m_grainSizeSectors(grainSizeSectors),
      m_compressed(compressed),
      m_compressionSetting(compressionSetting),
      m_grainSizeBytes(sectorSize * grainSizeSectors),
      m_capacityBytes(sectorSize * capacitySectors),
      m_fallbackDataProvider(fallback) {}

CProps CVMDKNullExtentFile::uriProps() const {
    return CProps().add("uri", m_uri.toString(true));
}

void CVMDKNullExtentFile::setFallbackDataProvider(IVMDKDataProvider* fallbackDataProvider) {
    m_fallbackDataProvider = fallbackDataProvider;
}

void CVMDKNullExtentFile::seek(int64 position) {
    if (position < 0 || position > m_capacityBytes)
        throw CInvalidArgError("CVMDKNullExtentFile::seek", "Invalid position: " + toDecimal(position),
                               uriProps());
    m_position = position;
}

void CVMDKNullExtentFile::read(void* buffer, int size) {
    if (size < 0)
        throw CInvalidArgError("CVMDKNullExtentFile::read",
                               "Invalid number of bytes to read: " + toDecimal(size), uriProps());
    if (size > m_capacityBytes - m_position)
        throw CIOError(CIOError::Code_UnexpectedEnd,
                       "Unexpected end of data reading from VMDK null extent file.",
                       uriProps().add("position", m_position).add("bytesToRead", size));
    if (m_fallbackDataProvider)
        m_fallbackDataProvider->getData(m_startGrainIndex * m_grainSizeBytes + m_position, buffer, size);
    else
        std::fill_n(static_cast<unsigned char*>(buffer), size, 0);
    m_position += size;
}

void CVMDKNullExtentFile::readPreparedGrainData(TBuffer<unsigned char>& data) {
    if (m_grainSizeBytes > m_capacityBytes - m_position)
        throw CIOError(CIOError::Code_WriteBeyondEnd, "Prepared grain read exceeds VMDK extent size.",
                       uriProps()
                           .add("position", m_position)
                           .add("grainSize", m_grainSizeBytes)
                           .add("extentSize", m_capacityBytes));
    if (m_position % m_grainSizeBytes != 0)
        throw CIOError(CIOError::Code_NotOnGrainBoundary,
                       "Prepared grain read in VMDK extent file can only be done on a grain boundary.",
                       uriProps().add("position", m_position).add("grainSize", m_grainSizeBytes));
    if (m_fallbackDataProvider) {
        m_fallbackDataProvider->getPreparedGrainData(diskGrainIndex() * m_grainSizeBytes, data,
                                                     static_cast<int>(m_grainSizeBytes), m_compressed);
    } else {
        if (!m_dataPreparer)
            m_dataPreparer = createDataPreparer();
        if (!m_preparedZeroGrain) {
            const P<TBuffer<unsigned char>> zeroGrain(new TBuffer<unsigned char>(m_grainSizeBytes));
            const P<TBuffer<unsigned char>> aux(new TBuffer<unsigned char>);
            m_preparedZeroGrain = m_dataPreparer->prepareGrainData(zeroGrain.get(), 0, aux.get());
        }
        data = *m_preparedZeroGrain;
        m_dataPreparer->patchGrainIndexInPreparedGrainData(data, diskGrainIndex());
    }
    m_position += m_grainSizeBytes;
}

bool CVMDKNullExtentFile::isGrainWritten() {
    return m_fallbackDataProvider &&
           m_fallbackDataProvider->isGrainWritten(diskGrainIndex() * m_grainSizeBytes);
}

P<CVMDKDataPreparer> CVMDKNullExtentFile::createDataPreparer() {
    return new CVMDKDataPreparer(m_grainSizeSectors, m_compressed, m_compressionSetting);
}

P<CVMDKSpaceInfo> CVMDKNullExtentFile::gatherSpaceInfo() {
    return new CVMDKSpaceInfo;
}

void CVMDKNullExtentFile::refuseChange(const char* method) const {
    throw CError(String("Internal error: ") + method + " method called on VMDK null extent file.", String(),
                 -1, uriProps());
}

void CVMDKNullExtentFile::write(const void*, int) {
    refuseChange("write");
}

void CVMDKNullExtentFile::writePreparedGrainData(const TBuffer<unsigned char>&) {
    refuseChange("writePreparedGrainData");
}

int64 CVMDKNullExtentFile::makeGrainIndependentOfParent(int64) {
    refuseChange("makeGrainIndependentOfParent");
}

} // namespace tessel
