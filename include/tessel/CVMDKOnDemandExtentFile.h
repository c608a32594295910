#pragma once

#include "lum/CBase.h"
#include "lum/IFileSystem.h"
#include "sigil/ICipher.h"
#include "tessel/CVMDKContentIDUpdater.h"
#include "tessel/CVMDKGrainTableCache.h"
#include "tessel/IVMDKExtentFile.h"

namespace tessel {

/// An extent whose file is made when it is first changed. Until then it reads as zeros or as what the
/// fallback provider has; the change that comes first makes the file, opens it at the same position,
/// and goes on there. A file that was left half-made counts as missing, and is made anew.
class TESSEL_EXPORT CVMDKOnDemandExtentFile : public CBase, public IVMDKExtentFile {
public:
    /// Opens the file when it exists. `creationData`: the key hash for the header of an encrypted extent,
    /// empty for others; the other arguments as CVMDKSparseExtentFile and CVMDKNullExtentFile.
    CVMDKOnDemandExtentFile(IFileSystem* fileSystem, const CURI& uri, IIOStream::Access access,
                            int64 startGrainIndex, int64 grainSizeSectors, int64 capacitySectors,
                            int64 sectorSize, bool compressed, int compressionSetting,
                            IVMDKDataProvider* fallback, CVMDKGrainTableCache* cache,
                            CVMDKContentIDUpdater* updater, sigil::ICipher* cipher,
                            const TCryptBuffer<unsigned char>& key, const TBuffer<unsigned char>& iv,
                            const TBuffer<unsigned char>& creationData);

    /// True while there is no file.
    bool isNull() const noexcept { return m_isNull; }
    /// What the extent is now: a CVMDKNullExtentFile or a CVMDKSparseExtentFile.
    P<IVMDKExtentFile> getInnerExtentFile() const { return m_inner; }

    void setFallbackDataProvider(IVMDKDataProvider* fallbackDataProvider) override;
    int64 getStartGrainIndex() const override { return m_startGrainIndex; }
    int64 getGrainSizeSectors() const override { return m_grainSizeSectors; }
    bool getCompressed() const override { return m_compressed; }
    CURI getURI() override { return m_uri; }
    void seek(int64 position) override { m_inner->seek(position); }
    int64 getPosition() const override { return m_inner->getPosition(); }
    void read(void* buffer, int size) override { m_inner->read(buffer, size); }
    void write(const void* buffer, int size) override;
    void flushChanges() override { m_inner->flushChanges(); }
    P<CVMDKDataPreparer> createDataPreparer() override { return m_inner->createDataPreparer(); }
    void writePreparedGrainData(const TBuffer<unsigned char>& data) override;
    void readPreparedGrainData(TBuffer<unsigned char>& data) override;
    int64 makeGrainIndependentOfParent(int64 grainIndex) override;
    bool isGrainWritten() override { return m_inner->isGrainWritten(); }
    bool isGrainWrittenAndIndependentOfParent() override;
    P<CVMDKSpaceInfo> gatherSpaceInfo() override { return m_inner->gatherSpaceInfo(); }

protected:
    /// Sees to it that there is a file that can be changed.
    /// Throws: CError ("uri") without write access; CIOError 5 when the extent is no whole number of
    /// grains; what making and opening the file throw. The extent is then as it was, but for a file that
    /// was already made and will only be opened next time.
    void prepareWrite();
    /// Makes the extent one without a file (`useNull`), or opens its file.
    /// Throws: what opening throws.
    void updateInnerFileObject(bool useNull);

private:
    bool hasFile();

    P<IFileSystem> m_fileSystem;
    CURI m_uri;
    IIOStream::Access m_access;
    int64 m_startGrainIndex;
    int64 m_grainSizeSectors;
    int64 m_capacitySectors;
    int64 m_sectorSize;
    bool m_compressed;
    int m_compressionSetting;
    P<IVMDKDataProvider> m_fallbackDataProvider;
    P<CVMDKGrainTableCache> m_grainTableCache;
    P<CVMDKContentIDUpdater> m_contentIDUpdater;
    bool m_isNull = false;
    P<IVMDKExtentFile> m_inner;
    P<sigil::ICipher> m_cipher;
    TCryptBuffer<unsigned char> m_encryptionKey;
    TBuffer<unsigned char> m_encryptionIV;
    TBuffer<unsigned char> m_creationData;
};

} // namespace tessel
