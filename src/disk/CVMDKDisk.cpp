// Opening a disk: lock, descriptor, key, extents, parent.

#include "tessel/CVMDKDisk.h"

#include "disk/DiskKeys.h"
#include "lum/CIOError.h"
#include "lum/Logging.h"
#include "lum/Numbers.h"
#include "tessel/CVMDKParentDiskDataProvider.h"
#include "tessel/CVMDKSparseExtentFile.h"
#include "tessel/VMDKFileReference.h"

#include <algorithm>

namespace tessel {

namespace {

constexpr unsigned int noContentID = 0xFFFFFFFF;
constexpr int64 minDiskSize = 8388608;
constexpr int64 createdGrainSize = 65536;

/// The first words of a line, however they are set apart.
TArray<String> splitWords(const String& line, std::size_t most) {
    TArray<String> words;
    String word;
    for (int i = 0; i <= line.getLength() && words.size() < most; ++i) {
        const wchar_t c = i < line.getLength() ? line[i] : L' ';
        if (c != L' ' && c != L'\t' && c != L'\r') {
            word += c;
        } else if (!word.isEmpty()) {
            words.push_back(word);
            word = String();
        }
    }
    return words;
}

/// With or without a sign, of any size.
bool isNumber(const String& text) {
    const String digits = text.StartsWith("-") || text.StartsWith("+") ? text.Mid(1) : text;
    for (int i = 0; i < digits.getLength(); ++i)
        if (digits[i] < L'0' || digits[i] > L'9')
            return false;
    return !digits.isEmpty();
}

} // namespace

CVMDKDisk::CVMDKDisk(IFileSystem* fileSystem, const CURI& mainFileURI, IIOStream::Access access,
                     const String& password, int compressionLevel, CVMDKGrainTableCache* grainTableCache,
                     CVMDKDisk* parentDisk)
    : CVMDKDisk(fileSystem, mainFileURI, access, password, compressionLevel, grainTableCache, parentDisk,
                TArray<CURI>()) {}

CVMDKDisk::CVMDKDisk(IFileSystem* fileSystem, const CURI& mainFileURI, IIOStream::Access access,
                     const String& password, int compressionLevel, CVMDKGrainTableCache* grainTableCache,
                     CVMDKDisk* parentDisk, const TArray<CURI>& children)
    : m_fileSystem(fileSystem),
      m_mainFileURI(mainFileURI.toNormalized()),
      m_access(access),
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
    verifyCreateType(uriProps);
    unlock(password, uriProps);
    m_createExtentFilesOnDemand = m_descriptor->getLumCreateExtentFilesOnDemand();
    verifyNoUnknownExtentLines(uriProps);
    buildExtentMap(uriProps);
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

void CVMDKDisk::verifyCreateType(const CProps& uriProps) const {
    const String type = m_descriptor->getCreateType();
    if (type != "twoGbMaxExtentSparse" && type != "streamOptimized" && type != "monolithicSparse")
        throw CIOError(CIOError::Code_BadFormat, "VMDK disk has an unsupported create type: '" + type + "'.",
                       uriProps);
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

// An extent line of a kind that is not understood stays in the descriptor as text, or as a setting where its
// file's name holds an equals sign. To pass over it would shift everything behind it.
void CVMDKDisk::verifyNoUnknownExtentLines(const CProps& uriProps) const {
    TArray<String> lines;
    m_descriptor->getGenericLines(lines);
    m_descriptor->getSettingLines(lines);
    for (const String& line : lines) {
        const TArray<String> words = splitWords(line, 3);
        if (words.size() < 2 || !isNumber(words[1]))
            continue;
        const String access = words[0].Lower();
        if (access == "rw" || access == "rdonly" || access == "noaccess")
            throw CIOError(CIOError::Code_BadFormat,
                           "VMDK disk has an unsupported extent type: '" +
                               (words.size() > 2 ? words[2] : String()) + "'.",
                           uriProps);
    }
}

void CVMDKDisk::buildExtentMap(const CProps& uriProps) {
    const CURI folder = m_mainFileURI.getParent();
    m_descriptor->getExtentEntries(m_extents);
    constexpr int64 maxSizeSectors = INT64_MAX / vmdkSectorSize;
    for (const auto& extent : m_extents) {
        if (extent->getType() != "SPARSE")
            throw CIOError(CIOError::Code_BadFormat,
                           "VMDK disk has an unsupported extent type: '" + extent->getType() + "'.",
                           uriProps);
        if (!extent->isSizeKnown())
            throw CIOError(CIOError::Code_BadFormat,
                           "VMDK disk has an extent whose size is no number (file: '" +
                               extent->getFilename() + "').",
                           uriProps);
        const int64 size = extent->getSizeSectors();
        if (size < 0 || size > maxSizeSectors - m_sizeSectors)
            throw CIOError(CIOError::Code_BadFormat,
                           "VMDK disk has an extent of an invalid size: " + toDecimal(size) +
                               " sectors (allowed: 0 to " + toDecimal(maxSizeSectors - m_sizeSectors) + ").",
                           CProps(uriProps).add("sizeSectors", size));
        if (size == 0)
            continue;
        const CURI uri = vmdkFileReferenceToURI(folder, extent->getFilename());
        if (m_extentMap.empty())
            m_firstExtentFileURI = uri;
        m_extentMap.insert_or_assign(CExtentKey{m_sizeSectors, size}, CExtentValue{uri, -1});
        m_sizeSectors += size;
    }
    if (m_extentMap.empty())
        throw CIOError(CIOError::Code_BadFormat, "VMDK disk has no extents.", uriProps);
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
