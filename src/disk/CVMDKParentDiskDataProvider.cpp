#include "tessel/CVMDKParentDiskDataProvider.h"

#include "lum/CIOError.h"
#include "lum/Logging.h"
#include "tessel/VMDKFileReference.h"

#include <algorithm>

namespace tessel {

CVMDKParentDiskDataProvider::CVMDKParentDiskDataProvider(IFileSystem* fileSystem, const CURI& childURI,
                                                         unsigned int expectedParentContentID,
                                                         const String& parentFileReference,
                                                         int64 /*grainSizeSectors*/, const String& password,
                                                         int compressionSetting, CVMDKGrainTableCache* cache,
                                                         CVMDKDisk* parentDisk, const TArray<CURI>& children)
    : m_fileSystem(fileSystem),
      m_childURI(childURI),
      m_expectedParentContentID(expectedParentContentID),
      m_compressionSetting(compressionSetting),
      m_grainTableCache(cache),
      m_parentURI(vmdkFileReferenceToURI(childURI.getParent(), parentFileReference)),
      m_parentDisk(parentDisk),
      m_password(password),
      m_children(children) {
    m_children.push_back(childURI.toNormalized());
    fetchParentDiskSize();
}

CProps CVMDKParentDiskDataProvider::uriProps() const {
    return CProps().add("parentURI", m_parentURI.toString(true)).add("childURI", m_childURI.toString(true));
}

void CVMDKParentDiskDataProvider::fetchParentDiskSize() {
    m_parentDiskSize = m_parentDisk ? m_parentDisk->getSizeBytes() : -1;
}

P<CVMDKDisk> CVMDKParentDiskDataProvider::openParentDisk() {
    if (std::find(m_children.begin(), m_children.end(), m_parentURI) != m_children.end())
        throw CIOError(CIOError::Code_BadFormat, "VMDK parent disk chain comes back to itself.", uriProps());
    if (static_cast<int>(m_children.size()) >= maxChainLength)
        throw CIOError(CIOError::Code_BadFormat,
                       "VMDK parent disk chain is too deep (more than " + toDecimal(maxChainLength) +
                           " disks).",
                       uriProps());
    P<CVMDKDisk> disk(new CVMDKDisk(m_fileSystem.get(), m_parentURI, IIOStream::Access_Read, m_password.get(),
                                    m_compressionSetting, m_grainTableCache.get(), nullptr, m_children,
                                    m_opensRenamed ? CVMDKDisk::ExtentName::asMainFile
                                                   : CVMDKDisk::ExtentName::asDescriptor));
    const unsigned int actualID = disk->getDescriptor()->getContentID();
    if (actualID != m_expectedParentContentID)
        throw CIOError(CIOError::Code_BadFormat,
                       "VMDK parent disk has changed, but a child disk depended on it.",
                       uriProps()
                           .add("expectedContentID", toHexString(m_expectedParentContentID))
                           .add("actualContentID", toHexString(actualID)));
    return disk;
}

void CVMDKParentDiskDataProvider::ensureParentDiskOpen() {
    if (m_parentDisk)
        return;
    try {
        m_parentDisk = openParentDisk();
        m_children = TArray<CURI>(); // the parent has them; a long chain would hold many copies
        fetchParentDiskSize();
    } catch (const CError& error) {
        logError(error,
                 "Error while opening VMDK parent disk (parent URI: '" + m_parentURI.toString(true) +
                     "', child URI: '" + m_childURI.toString(true) + "')",
                 "");
        throw;
    }
}

P<CVMDKDisk> CVMDKParentDiskDataProvider::getParentDisk() {
    ensureParentDiskOpen();
    return m_parentDisk;
}

void CVMDKParentDiskDataProvider::getData(int64 position, void* buffer, int size) {
    ensureParentDiskOpen();
    int held = 0;
    if (position < m_parentDiskSize) {
        held = static_cast<int>(std::min<int64>(size, m_parentDiskSize - position));
        m_parentDisk->seek(position);
        m_parentDisk->read(buffer, held);
    }
    std::fill_n(static_cast<unsigned char*>(buffer) + held, size - held, 0);
}

bool CVMDKParentDiskDataProvider::isGrainWritten(int64 position) {
    ensureParentDiskOpen();
    if (position >= m_parentDiskSize)
        return false;
    m_parentDisk->seek(position);
    return m_parentDisk->isGrainWritten();
}

void CVMDKParentDiskDataProvider::getPreparedGrainData(int64 position, TBuffer<unsigned char>& out,
                                                       int grainSizeBytes, bool compressed) {
    ensureParentDiskOpen();
    if (m_parentDisk->getGrainSizeBytes() != grainSizeBytes || m_parentDisk->getCompressed() != compressed)
        throw CError("Parent disk is incompatible with diff disk.", String(), -1,
                     uriProps()
                         .add("expectedGrainSize", grainSizeBytes)
                         .add("expectedCompressed", toText(compressed))
                         .add("actualGrainSize", m_parentDisk->getGrainSizeBytes())
                         .add("actualCompressed", toText(m_parentDisk->getCompressed())));
    if (position < m_parentDiskSize) {
        m_parentDisk->seek(position);
        m_parentDisk->readPreparedGrainData(out);
        return;
    }
    if (!m_dataPreparer)
        m_dataPreparer = m_parentDisk->createDataPreparer();
    if (!m_preparedZeroGrain) {
        m_zeroGrain = new TBuffer<unsigned char>(grainSizeBytes);
        m_auxBuffer = new TBuffer<unsigned char>;
        m_preparedZeroGrain = m_dataPreparer->prepareGrainData(m_zeroGrain.get(), 0, m_auxBuffer.get());
    }
    out = *m_preparedZeroGrain;
    m_dataPreparer->patchGrainIndexInPreparedGrainData(out, position / grainSizeBytes);
}

} // namespace tessel
