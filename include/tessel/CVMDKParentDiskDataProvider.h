#pragma once

#include "lum/CSecretText.h"
#include "tessel/CVMDKDisk.h"
#include "tessel/IVMDKDataProvider.h"

namespace tessel {

/// Gives a child disk the grains that it does not hold. Opens the parent, for reading, when it is first
/// needed, and checks that it is still the disk that the child was made from.
class TESSEL_EXPORT CVMDKParentDiskDataProvider : public CBase, public IVMDKDataProvider {
public:
    /// The deepest chain of disks.
    static constexpr int maxChainLength = 256;

    /// `grainSizeSectors` is the child's; what it asks for in prepared form is checked at each request.
    /// `parentFileReference` is seen from the child's folder. `parentDisk` may be null; one that is given
    /// is taken as already open and checked. `children`: the main files of the disks that have the child
    /// as a parent.
    CVMDKParentDiskDataProvider(IFileSystem* fileSystem, const CURI& childURI,
                                unsigned int expectedParentContentID, const String& parentFileReference,
                                int64 grainSizeSectors, const String& password, int compressionSetting,
                                CVMDKGrainTableCache* cache, CVMDKDisk* parentDisk,
                                const TArray<CURI>& children = TArray<CURI>());

    /// Whether the parent is opened as by CVMDKDisk::openRenamed(); as a rule it is not.
    void setOpensRenamed(bool opensRenamed) noexcept { m_opensRenamed = opensRenamed; }

    /// Throws: CIOError 5 ("parentURI", "childURI", …) when the parent has changed, or the chain of parents
    /// comes back to one of its disks or is deeper than maxChainLength; what opening the parent throws.
    /// Every call tries again.
    void ensureParentDiskOpen();
    /// The parent's main file, seen from the child's folder.
    CURI getParentDiskMainFileURI() const { return m_parentURI; }
    /// The open parent; throws as ensureParentDiskOpen.
    P<CVMDKDisk> getParentDisk();

    // Each opens the parent where it is not open yet. What lies beyond its end is zeros, and unwritten.

    void getData(int64 position, void* buffer, int size) override;
    /// Throws: CError ("parentURI", "childURI", …) when the parent's grains are of another size or kind.
    void getPreparedGrainData(int64 position, TBuffer<unsigned char>& out, int grainSizeBytes,
                              bool compressed) override;
    bool isGrainWritten(int64 position) override;

protected:
    /// Asks the parent for its size, once.
    void fetchParentDiskSize();

private:
    CProps uriProps() const;
    P<CVMDKDisk> openParentDisk();

    P<IFileSystem> m_fileSystem;
    CURI m_childURI;
    unsigned int m_expectedParentContentID;
    int m_compressionSetting;
    P<CVMDKGrainTableCache> m_grainTableCache;
    CURI m_parentURI;
    P<CVMDKDisk> m_parentDisk;
    bool m_opensRenamed = false;
    int64 m_parentDiskSize = -1;
    CSecretText m_password;
    TArray<CURI> m_children;
    P<CVMDKDataPreparer> m_dataPreparer;
    P<TBuffer<unsigned char>> m_zeroGrain;
    P<TBuffer<unsigned char>> m_auxBuffer;
    P<TBuffer<unsigned char>> m_preparedZeroGrain;
};

} // namespace tessel
