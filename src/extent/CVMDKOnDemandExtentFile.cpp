#include "tessel/CVMDKOnDemandExtentFile.h"

#include "lum/CIOError.h"
#include "tessel/CVMDKNullExtentFile.h"
#include "tessel/CVMDKSparseExtentFile.h"
#include "tessel/VMDKEmptyExtentFile.h"
#include "tessel/VMDKFileReference.h"

namespace tessel {

namespace {

/// Size of the buffer of zeros for an extent without descriptor.
constexpr int64 zerosSize = 2048;

} // namespace

CVMDKOnDemandExtentFile::CVMDKOnDemandExtentFile(
    IFileSystem* fileSystem, const CURI& uri, IIOStream::Access access, int64 startGrainIndex,
    int64 grainSizeSectors, int64 capacitySectors, int64 sectorSize, bool compressed, int compressionSetting,
    IVMDKDataProvider* fallback, CVMDKGrainTableCache* cache, CVMDKContentIDUpdater* updater,
    sigil::ICipher* cipher, const TCryptBuffer<unsigned char>& key, const TBuffer<unsigned char>& iv,
    const TBuffer<unsigned char>& creationData)
    : m_fileSystem(fileSystem),
      m_uri(uri),
      m_access(access),
      m_startGrainIndex(startGrainIndex),
      m_grainSizeSectors(grainSizeSectors),
      m_capacitySectors(capacitySectors),
      m_sectorSize(sectorSize),
      m_compressed(compressed),
      m_compressionSetting(compressionSetting),
      m_fallbackDataProvider(fallback),
      m_grainTableCache(cache),
      m_contentIDUpdater(updater),
      m_cipher(cipher),
      m_encryptionKey(key),
      m_encryptionIV(iv),
      m_creationData(creationData) {
    updateInnerFileObject(!hasFile());
}

bool CVMDKOnDemandExtentFile::hasFile() {
    return m_fileSystem->fileExists(m_uri) && !isHalfMadeVMDKSparseExtentFile(m_fileSystem.get(), m_uri);
}

void CVMDKOnDemandExtentFile::updateInnerFileObject(bool useNull) {
    P<IVMDKExtentFile> inner;
    if (useNull) {
        inner = new CVMDKNullExtentFile(m_uri, m_startGrainIndex, m_grainSizeSectors, m_capacitySectors,
                                        m_sectorSize, m_compressed, m_compressionSetting,
                                        m_fallbackDataProvider.get());
        if (m_inner)
            inner->seek(m_inner->getPosition());
    } else {
        const P<IIOStream> stream = openExistingVMDKFileStream(m_fileSystem.get(), m_uri, m_access);
        const P<CVMDKSparseExtentFile> sparse(new CVMDKSparseExtentFile(
            stream.get(), m_access, m_startGrainIndex, m_compressionSetting, m_grainTableCache.get(),
            m_fallbackDataProvider.get(), m_contentIDUpdater.get(), m_cipher.get(), m_encryptionKey,
            m_encryptionIV));
        // Somebody else may have made the file meanwhile.
        sparse->verifyFitsDisk(m_grainSizeSectors, m_compressed, m_capacitySectors);
        if (m_inner)
            sparse->startAt(m_inner->getPosition());
        inner = sparse;
    }
    m_inner.swap(inner);
    m_isNull = useNull;
}

void CVMDKOnDemandExtentFile::prepareWrite() {
    const CProps uri = CProps().add("uri", m_uri.toString(true));
    if (m_access != IIOStream::Access_ReadWrite)
        throw CError("Internal error: VMDK extent file is about to be changed, but it was not opened for "
                     "writing.",
                     String(), -1, uri);
    if (!m_isNull)
        return;
    if (!hasFile()) {
        if (m_capacitySectors % m_grainSizeSectors != 0)
            throw CIOError(
                CIOError::Code_BadFormat,
                "VMDK extent file cannot be created: its size of " + toDecimal(m_capacitySectors) +
                    " sectors is no whole number of grains (grain size: " + toDecimal(m_grainSizeSectors) +
                    " sectors).",
                CProps(uri).add("capacity", m_capacitySectors).add("grainSize", m_grainSizeSectors));
        if (m_fileSystem->fileExists(m_uri)) // half-made; only a new file's name becomes durable with it
            m_fileSystem->deleteFile(m_uri, true);
        const TBuffer<unsigned char> zeros(zerosSize);
        createEmptyVMDKSparseExtentFile(m_fileSystem.get(), m_uri, m_compressed,
                                        m_capacitySectors / m_grainSizeSectors, m_grainSizeSectors, zeros,
                                        nullptr, 0, m_creationData);
    }
    updateInnerFileObject(false);
}

void CVMDKOnDemandExtentFile::setFallbackDataProvider(IVMDKDataProvider* fallbackDataProvider) {
    m_fallbackDataProvider = fallbackDataProvider;
    m_inner->setFallbackDataProvider(fallbackDataProvider);
}

void CVMDKOnDemandExtentFile::write(const void* buffer, int size) {
    prepareWrite();
    m_inner->write(buffer, size);
}

void CVMDKOnDemandExtentFile::writePreparedGrainData(const TBuffer<unsigned char>& data) {
    // No file comes into being for data that it would not take.
    if (m_isNull && m_access == IIOStream::Access_ReadWrite)
        m_inner->createDataPreparer()->verifyPreparedGrainData(TConstBufferSlice<unsigned char>(data),
                                                               "CVMDKGrain::writePreparedGrainData",
                                                               [this] { return m_uri; });
    prepareWrite();
    m_inner->writePreparedGrainData(data);
}

void CVMDKOnDemandExtentFile::readPreparedGrainData(TBuffer<unsigned char>& data) {
    m_inner->readPreparedGrainData(data);
}

int64 CVMDKOnDemandExtentFile::makeGrainIndependentOfParent(int64 grainIndex) {
    prepareWrite();
    return m_inner->makeGrainIndependentOfParent(grainIndex);
}

bool CVMDKOnDemandExtentFile::isGrainWrittenAndIndependentOfParent() {
    return m_inner->isGrainWrittenAndIndependentOfParent();
}

} // namespace tessel
