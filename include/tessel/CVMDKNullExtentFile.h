#pragma once

#include "lum/CBase.h"
#include "tessel/IVMDKExtentFile.h"

namespace tessel {

/// An extent whose file does not exist: zeros, or what the fallback provider has. It is never changed;
/// CVMDKOnDemandExtentFile puts a real one in its place first.
class TESSEL_EXPORT CVMDKNullExtentFile : public CBase, public IVMDKExtentFile {
public:
    /// `uri`: where the file would be. `sectorSize`: bytes of a sector, 512. `fallback` may be null.
    CVMDKNullExtentFile(const CURI& uri, int64 startGrainIndex, int64 grainSizeSectors, int64 capacitySectors,
                        int64 sectorSize, bool compressed, int compressionSetting,
                        IVMDKDataProvider* fallback);

    void setFallbackDataProvider(IVMDKDataProvider* fallbackDataProvider) override;
    int64 getStartGrainIndex() const override { return m_startGrainIndex; }
    int64 getGrainSizeSectors() const override { return m_grainSizeSectors; }
    bool getCompressed() const override { return m_compressed; }
    CURI getURI() override { return m_uri; }
    void seek(int64 position) override;
    int64 getPosition() const override { return m_position; }
    void read(void* buffer, int size) override;
    /// Always throws: CError.
    void write(const void* buffer, int size) override;
    void flushChanges() override {}
    P<CVMDKDataPreparer> createDataPreparer() override;
    /// Always throws: CError.
    void writePreparedGrainData(const TBuffer<unsigned char>& data) override;
    void readPreparedGrainData(TBuffer<unsigned char>& data) override;
    /// Always throws: CError.
    int64 makeGrainIndependentOfParent(int64 grainIndex) override;
    bool isGrainWritten() override;
    bool isGrainWrittenAndIndependentOfParent() override { return false; }
    /// All sizes 0.
    P<CVMDKSpaceInfo> gatherSpaceInfo() override;

private:
    CProps uriProps() const;
    int64 diskGrainIndex() const noexcept { return m_startGrainIndex + m_position / m_grainSizeBytes; }
    [[noreturn]] void refuseChange(const char* method) const;

    CURI m_uri;
    int64 m_startGrainIndex;
    int64 m_grainSizeSectors;
    bool m_compressed;
    int m_compressionSetting;
    int64 m_grainSizeBytes;
    int64 m_capacityBytes;
    P<IVMDKDataProvider> m_fallbackDataProvider;
    int64 m_position = 0;
    P<CVMDKDataPreparer> m_dataPreparer;
    P<TBuffer<unsigned char>> m_preparedZeroGrain;
};

} // namespace tessel
