// Opening a disk: lock, descriptor, key, extents, parent.

#include "tessel/CVMDKDisk.h"

#include "disk/DiskKeys.h"
#include "disk/ExtentLines.h"
#include "lum/CIOError.h"
#include "lum/Logging.h"
#include "lum/Numbers.h"
#include "tessel/CVMDKParentDiskDataProvider.h"
#include "tessel/CVMDKSparseExtentFile.h"
#include "tessel/VMDKFileReference.h"
#include "tessel/VMDKRenamedFile.h"

#include <algorithm>

namespace tessel {

namespace {

constexpr unsigned int noContentID = 0xFFFFFFFF;
constexpr int64 minDiskSize = 8388608;
constexpr int64 createdGrainSize = 65536;

} // namespace

CVMDKDisk::CVMDKDisk(IFileSystem* fileSystem, const CURI& mainFileURI, IIOStream::Access access,
                     const String& password, int compressionLevel, CVMDKGrainTableCache* grainTableCache,
                     CVMDKDisk* parentDisk)
    : CVMDKDisk(fileSystem, mainFileURI, access, password, compressionLevel, grainTableCache, parentDisk,
                TArray<CURI>(), ExtentName::asDescriptor) {}

P<CVMDKDisk> CVMDKDisk::openRenamed(IFileSystem* fileSystem, const CURI& mainFileURI,
                                    IIOStream::Access access, const String& password, int compressionLevel,
                                    CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk) {
    return new CVMDKDisk(fileSystem, mainFileURI, access, password, compressionLevel, grainTableCache,
                         parentDisk, TArray<CURI>(), ExtentName::asMainFile);
}

CVMDKDisk::CVMDKDisk(IFileSystem* fileSystem, const CURI& mainFileURI, IIOStream::Access access,
                     const String& password, int compressionLevel, CVMDKGrainTableCache* grainTableCache,
                     CVMDKDisk* parentDisk, const TArray<CURI>& children, ExtentName extentName)
    : m_fileSystem(fileSystem),
      m_mainFileURI(mainFileURI.toNormalized()),
      m_access(access),
      m_extentName(extentName),
      m_compressionLevel(compressionLevel),
      m_grainTableCache(grainTableCache) {
    const CURI lockURI = mainFileURI.getParent() << (mainFileURI.getName() + ".lock");
    m_lockFile = new CLockFile(fileSystem, lockURI,
                               access == IIOStream::Access_ReadWrite ? CLockFile::LockType_Exclusive
                                                                     : CLockFile::LockType_Shared,
                               false, true);
    if (!m_grainTableCache)
        m_grainTableCache = new CVMDKGrainTableCache(CVMDKGrainTableCache::defaultLimit);

    bool embedded = false;
    {
        // The accessor and its stream are gone before the first extent, which may be the same file, is
        // opened.
        const P<CVMDKDescriptorAccessor> accessor = openDescriptorAccessor();
        m_descriptor = accessor->getDescriptor();
        embedded = accessor->getEmbeddedInSparseExtentFile();
    }
    const CProps uriProps = CProps().add("uri", mainFileURI.toString(true));
    if (!m_descriptor)
        throw CIOError(CIOError::Code_BadFormat, "No descriptor found in main VMDK file.", uriProps);
    verifyCreateType(*m_descriptor, uriProps);
    unlock(password, uriProps);
    m_createExtentFilesOnDemand = m_descriptor->getLumCreateExtentFilesOnDemand();
    verifyNoUnknownExtentLines(*m_descriptor, uriProps);
    buildExtentMap(uriProps, embedded);
    if (embedded && m_firstExtentFileURI != m_mainFileURI)
        logWarning("The descriptor in VMDK file '" + m_mainFileURI.toString(true) +
                   "' names another file as its first extent: '" + m_firstExtentFileURI.toString(true) +
                   "'. The disk may have been renamed or copied by hand.");
    probeFirstExtent();
    openParent(password, parentDisk, children, uriProps);
    m_contentIDUpdater = new CVMDKContentIDUpdater(fileSystem, m_mainFileURI, m_descriptor.get());
}

CVMDKDisk::~CVMDKDisk() {
    try {
        flushChanges();
    } catch (const std::exception& error) {
        onExceptionInDestructorIgnored("tessel::CVMDKDisk", error, true);
    }
    // The files are closed before the lock goes, which the order of the members would release first.
    m_currentExtentFile = nullptr;
    m_parentDataProvider = nullptr;
}

P<CVMDKDescriptorAccessor> CVMDKDisk::openDescriptorAccessor() {
    P<IIOStream> stream;
    if (m_currentExtentFile && m_currentExtentURI == m_mainFileURI)
        if (const auto sparse = castTo<CVMDKSparseExtentFile>(m_currentExtentFile))
            stream = sparse->getStream();
    if (!stream)
        stream = openExistingVMDKFileStream(m_fileSystem.get(), m_mainFileURI, m_access);
    return new CVMDKDescriptorAccessor(stream.get(), m_access);
}

void CVMDKDisk::unlock(const String& password, const CProps& uriProps) {
    const String algorithm = m_descriptor->getLumEncryptionAlgorithm();
    if (algorithm.isEmpty())
        return;
    UDiskKeys keys = unlockDiskKeys(*m_descriptor, password, uriProps);
    m_cipher = keys.cipher;
    m_dataKey = std::move(keys.dataKey);
    m_encryptionIV = std::move(keys.iv);
    m_encryptionKeyHash = std::move(keys.keyHash);
}

void CVMDKDisk::buildExtentMap(const CProps& uriProps, bool embedded) {
    m_descriptor->getExtentEntries(m_extents);
    placeExtents(m_extents, m_mainFileURI.getParent(), uriProps, [this](UExtentLine&& line) {
        m_sizeSectors = line.startSector + line.sizeSectors;
        m_extentMap.emplace_hint(m_extentMap.end(), CExtentKey{line.startSector, line.sizeSectors},
                                 CExtentValue{std::move(line.uri), -1});
    });
    m_isRenamed =
        m_extentName == ExtentName::asMainFile && embedded && isRenamedVMDKFile(*m_descriptor, m_mainFileURI);
    if (m_isRenamed)
        m_extentMap.begin()->second.uri = m_mainFileURI;
    m_firstExtentFileURI = m_extentMap.begin()->second.uri;
    m_sizeBytes = m_sizeSectors * vmdkSectorSize;
}

void CVMDKDisk::probeFirstExtent() {
    {
        const P<IIOStream> stream =
            openVMDKFileStream(m_fileSystem.get(), m_firstExtentFileURI, IIOStream::Access_Read);
        const P<CVMDKSparseExtentFile> extent(new CVMDKSparseExtentFile(
            stream.get(), IIOStream::Access_Read, 0, m_compressionLevel, m_grainTableCache.get(), nullptr,
            nullptr, m_cipher.get(), m_dataKey, m_encryptionIV));
        m_grainSizeSectors = extent->getGrainSizeSectors();
        m_compressed = extent->getCompressed();
    }
    m_grainSizeBytes = m_grainSizeSectors * vmdkSectorSize;
    for (auto& [key, value] : m_extentMap)
        value.startGrainIndex = divideRoundingUp(key.startSector, m_grainSizeSectors);
}

void CVMDKDisk::openParent(const String& password, CVMDKDisk* parentDisk, const TArray<CURI>& children,
                           const CProps& uriProps) {
    const unsigned int parentContentID = m_descriptor->getParentContentID();
    if (parentContentID == noContentID)
        return;
    // Parents are asked by grain of the disk, which an extent that begins within one does not have.
    for (const auto& [key, value] : m_extentMap)
        if (key.startSector % m_grainSizeSectors != 0)
            throw CIOError(CIOError::Code_BadFormat,
                           "VMDK disk has a parent, but an extent that does not begin on a grain boundary "
                           "(sector: " +
                               toDecimal(key.startSector) + ", grain size: " + toDecimal(m_grainSizeSectors) +
                               ").",
                           CProps(uriProps).add("startSector", key.startSector));
    const P<CVMDKParentDiskDataProvider> provider(new CVMDKParentDiskDataProvider(
        m_fileSystem.get(), m_mainFileURI, parentContentID, m_descriptor->getParentFileNameHint(),
        m_grainSizeSectors, password, m_compressionLevel, m_grainTableCache.get(), parentDisk, children));
    provider->setOpensRenamed(m_extentName == ExtentName::asMainFile);
    m_parentDiskMainURI = provider->getParentDiskMainFileURI();
    m_parentDataProvider = provider;
}

int64 CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(int64 minSizeBytes) noexcept {
    constexpr int64 largest = INT64_MAX / createdGrainSize * createdGrainSize;
    return roundUp(std::clamp(minSizeBytes, minDiskSize, largest), createdGrainSize);
}

void CVMDKDisk::setContentIDUpdatesEnabled(bool enabled) {
    m_contentIDUpdater->setContentIDUpdatesEnabled(enabled);
}

void CVMDKDisk::setAutomaticGrainTableFlushingEnabled(bool enabled) {
    // Tables that leave the cache write themselves one by one, and can tell nobody of a failure.
    if (enabled && m_currentExtentFile)
        m_currentExtentFile->flushChanges();
    m_grainTableCache->setAutoEnforceLimit(enabled);
}

} // namespace tessel
