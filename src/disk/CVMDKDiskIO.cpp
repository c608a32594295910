// Reading and writing an open disk.

#include "disk/DiskKeys.h"
#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"
#include "lum/Logging.h"
#include "lum/Numbers.h"
#include "tessel/CVMDKDisk.h"
#include "tessel/CVMDKOnDemandExtentFile.h"
#include "tessel/CVMDKParentDiskDataProvider.h"
#include "tessel/CVMDKSparseExtentFile.h"
#include "tessel/VMDKEmptyExtentFile.h"
#include "tessel/VMDKFileReference.h"

#include <algorithm>

namespace tessel {

namespace {

constexpr unsigned int noContentID = 0xFFFFFFFF;

CProps mainFileProps(const CURI& mainFileURI) {
    return CProps().add("mainFileURI", mainFileURI.toString(true));
}

/// The open file behind an extent; null while an on-demand extent has none.
P<CVMDKSparseExtentFile> sparseExtentOf(const P<IVMDKExtentFile>& extent) {
    if (const auto onDemand = castTo<CVMDKOnDemandExtentFile>(extent))
        return castTo<CVMDKSparseExtentFile>(onDemand->getInnerExtentFile());
    return castTo<CVMDKSparseExtentFile>(extent);
}

} // namespace

// --- Extents ---

P<IVMDKExtentFile> CVMDKDisk::openExtentFile(const CExtentKey& key, const CExtentValue& value) {
    try {
        if (m_createExtentFilesOnDemand &&
            (!m_fileSystem->fileExists(m_currentExtentURI) ||
             isHalfMadeVMDKSparseExtentFile(m_fileSystem.get(), m_currentExtentURI)))
            return new CVMDKOnDemandExtentFile(
                m_fileSystem.get(), m_currentExtentURI, m_access, value.startGrainIndex, m_grainSizeSectors,
                key.sizeSectors, vmdkSectorSize, m_compressed, m_compressionLevel, m_parentDataProvider.get(),
                m_grainTableCache.get(), m_contentIDUpdater.get(), m_cipher.get(), m_dataKey, m_encryptionIV,
                m_encryptionKeyHash);
        const P<IIOStream> stream =
            openExistingVMDKFileStream(m_fileSystem.get(), m_currentExtentURI, m_access);
        const P<CVMDKSparseExtentFile> extent(new CVMDKSparseExtentFile(
            stream.get(), m_access, value.startGrainIndex, m_compressionLevel, m_grainTableCache.get(),
            m_parentDataProvider.get(), m_contentIDUpdater.get(), m_cipher.get(), m_dataKey, m_encryptionIV));
        extent->verifyFitsDisk(m_grainSizeSectors, m_compressed, key.sizeSectors);
        return extent;
    } catch (const CError& error) {
        logError(error,
                 "Error opening VMDK extent file on demand (path: '" + m_currentExtentURI.toString(true) +
                     "'). Letting exception through.",
                 "");
        throw;
    }
}

void CVMDKDisk::closeExtentFile() {
    m_currentExtentFile->flushChanges();
    m_currentExtentFile = nullptr;
    m_currentExtentURI = CURI();
    m_currentExtentStartBytes = -1;
    m_currentExtentSizeBytes = 0;
}

void CVMDKDisk::beginIOOp(int64 maxBytes, P<IVMDKExtentFile>& extentFile, int64& opBytes) {
    const bool isOpen = m_currentExtentFile && m_position >= m_currentExtentStartBytes &&
                        m_position - m_currentExtentStartBytes < m_currentExtentSizeBytes;
    if (!isOpen) {
        if (m_currentExtentFile)
            closeExtentFile();
        const auto found = m_extentMap.find(CExtentKey{m_position / vmdkSectorSize, 1});
        if (found == m_extentMap.end())
            throw CError("Internal error: cannot find VMDK extent for position " + toDecimal(m_position),
                         String(), -1, CProps().add("mainURI", m_mainFileURI.toString(true)));
        m_currentExtentURI = found->second.uri.toNormalized();
        m_currentExtentFile = openExtentFile(found->first, found->second);
        m_currentExtentStartBytes = found->first.startSector * vmdkSectorSize;
        m_currentExtentSizeBytes = found->first.sizeSectors * vmdkSectorSize;
    }
    const int64 offset = m_position - m_currentExtentStartBytes;
    if (m_currentExtentFile->getPosition() != offset)
        m_currentExtentFile->seek(offset);
    opBytes = std::min(maxBytes, m_currentExtentSizeBytes - offset);
    extentFile = m_currentExtentFile;
}

void CVMDKDisk::flushChanges() {
    if (m_access != IIOStream::Access_Read && m_currentExtentFile)
        m_currentExtentFile->flushChanges();
}

// --- Bytes ---

void CVMDKDisk::throwBadPosition(int64 position) const {
    throw CIOError(CIOError::Code_BadSeek, "Bad seek position in VMDK disk: " + toDecimal(position),
                   mainFileProps(m_mainFileURI).add("diskSize", m_sizeBytes));
}

void CVMDKDisk::seek(int64 position) {
    if (position < 0 || position > m_sizeBytes)
        throwBadPosition(position);
    m_position = position;
}

void CVMDKDisk::verifyHaveWriteAccess(const char* method) const {
    if (m_access != IIOStream::Access_ReadWrite)
        throw CError(String("Internal error: CVMDKDisk::") + method +
                     " was called, but the disk was not opened for writing.");
}

// The reference to the extent lives no longer than one piece, so that the extent before is closed when
// the next one is opened.

void CVMDKDisk::read(void* buffer, int size) {
    if (size > m_sizeBytes - m_position)
        throw CIOError(CIOError::Code_UnexpectedEnd, "Read exceeds VMDK disk size.",
                       mainFileProps(m_mainFileURI).add("position", m_position).add("bytesToRead", size));
    auto* target = static_cast<unsigned char*>(buffer);
    while (size > 0) {
        P<IVMDKExtentFile> extent;
        int64 piece = 0;
        beginIOOp(size, extent, piece);
        extent->read(target, static_cast<int>(piece));
        target += piece;
        size -= static_cast<int>(piece);
        m_position += piece;
    }
}

void CVMDKDisk::write(const void* buffer, int size) {
    if (size > m_sizeBytes - m_position)
        throw CIOError(CIOError::Code_WriteBeyondEnd, "Write exceeds VMDK disk size.",
                       mainFileProps(m_mainFileURI).add("position", m_position).add("bytesToWrite", size));
    verifyHaveWriteAccess("write");
    const auto* source = static_cast<const unsigned char*>(buffer);
    while (size > 0) {
        P<IVMDKExtentFile> extent;
        int64 piece = 0;
        beginIOOp(size, extent, piece);
        extent->write(source, static_cast<int>(piece));
        source += piece;
        size -= static_cast<int>(piece);
        m_position += piece;
    }
}

// --- Grains ---

void CVMDKDisk::verifyPreparedTransfer(const char* verb) const {
    if (m_grainSizeBytes > m_sizeBytes - m_position)
        throw CIOError(CIOError::Code_WriteBeyondEnd,
                       String("Prepared grain ") + verb + " exceeds VMDK disk size.",
                       mainFileProps(m_mainFileURI)
                           .add("position", m_position)
                           .add("grainSize", m_grainSizeBytes)
                           .add("diskSize", m_sizeBytes));
    if (m_position % m_grainSizeBytes != 0)
        throw CIOError(
            CIOError::Code_NotOnGrainBoundary,
            String("Prepared grain ") + verb + " in VMDK disk can only be done on a grain boundary.",
            mainFileProps(m_mainFileURI).add("position", m_position).add("grainSize", m_grainSizeBytes));
}

P<IVMDKExtentFile> CVMDKDisk::beginPreparedTransfer(const char* method) {
    P<IVMDKExtentFile> extent;
    int64 opBytes = 0;
    beginIOOp(m_grainSizeBytes, extent, opBytes);
    if (opBytes != m_grainSizeBytes)
        throw CError(String("Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::") + method +
                         " returned less than the grain size.",
                     String(), -1,
                     mainFileProps(m_mainFileURI)
                         .add("position", m_position)
                         .add("grainSize", m_grainSizeBytes)
                         .add("opBytes", opBytes)
                         .add("diskSize", m_sizeBytes));
    return extent;
}

void CVMDKDisk::readPreparedGrainData(TBuffer<unsigned char>& data) {
    verifyPreparedTransfer("read");
    beginPreparedTransfer("tryRreparedGrainData")->readPreparedGrainData(data);
    m_position += m_grainSizeBytes;
}

void CVMDKDisk::writePreparedGrainData(const TBuffer<unsigned char>& data) {
    verifyPreparedTransfer("write");
    verifyHaveWriteAccess("write");
    beginPreparedTransfer("writePreparedGrainData")->writePreparedGrainData(data);
    m_position += m_grainSizeBytes;
}

P<CVMDKDataPreparer> CVMDKDisk::createDataPreparer() const {
    return new CVMDKDataPreparer(m_grainSizeSectors, m_compressed, m_compressionLevel);
}

bool CVMDKDisk::isGrainWritten() {
    P<IVMDKExtentFile> extent;
    int64 opBytes = 0;
    beginIOOp(1, extent, opBytes);
    return extent->isGrainWritten();
}

bool CVMDKDisk::isGrainWrittenAndIndependentOfParent() {
    P<IVMDKExtentFile> extent;
    int64 opBytes = 0;
    beginIOOp(1, extent, opBytes);
    return extent->isGrainWrittenAndIndependentOfParent();
}

int64 CVMDKDisk::makeGrainIndependentOfParent(int64 grainIndex) {
    verifyHaveWriteAccess("makeGrainIndependentOfParent");
    // Kept within 64 bits: seek refuses whatever is outside the disk.
    const int64 largestIndex = INT64_MAX / m_grainSizeBytes;
    seek(std::clamp(grainIndex, -largestIndex, largestIndex) * m_grainSizeBytes);
    const P<IVMDKExtentFile> extent = beginPreparedTransfer("writePreparedGrainData");
    const int64 result = extent->makeGrainIndependentOfParent(grainIndex - extent->getStartGrainIndex());
    m_position += m_grainSizeBytes;
    return result;
}

UVMDKGrainRun CVMDKDisk::findGrainRun(int64 position) {
    if (position == m_sizeBytes)
        throwBadPosition(position);
    const int64 oldPosition = m_position;
    seek(position);
    UVMDKGrainRun run{position, 0, UVMDKGrainRun::nowhere};
    bool isHere = false;
    try {
        P<IVMDKExtentFile> extent;
        int64 extentLeft = 0;
        beginIOOp(m_sizeBytes - position, extent, extentLeft);
        run.sizeBytes = extentLeft;
        run.isStoredAlike = m_currentExtentStartBytes % m_grainSizeBytes == 0;
        if (const auto sparse = sparseExtentOf(extent)) {
            const int64 offset = position - m_currentExtentStartBytes;
            const int64 grainIndex = offset / m_grainSizeBytes;
            const int64 grains = sparse->findSlotRun(grainIndex, isHere);
            run.sizeBytes = std::min(extentLeft, (grainIndex + grains) * m_grainSizeBytes - offset);
        }
    } catch (...) {
        m_position = oldPosition;
        throw;
    }
    m_position = oldPosition;
    if (isHere) {
        run.layer = 0;
    } else if (const auto provider = castTo<CVMDKParentDiskDataProvider>(m_parentDataProvider)) {
        const P<CVMDKDisk> parent = provider->getParentDisk();
        if (position < parent->getSizeBytes()) {
            const UVMDKGrainRun below = parent->findGrainRun(position);
            run.sizeBytes = std::min(run.sizeBytes, below.sizeBytes);
            run.layer = below.layer == UVMDKGrainRun::nowhere ? below.layer : below.layer + 1;
            run.isStoredAlike = run.isStoredAlike && below.isStoredAlike &&
                                parent->m_grainSizeBytes == m_grainSizeBytes &&
                                parent->m_compressed == m_compressed;
        }
    }
    return run;
}

/// Tells where in this disk's files a run of it is.
void CVMDKDisk::findPlace(UVMDKStoredRun& run) {
    const int64 oldPosition = m_position;
    seek(run.position);
    try {
        P<IVMDKExtentFile> extent;
        int64 extentLeft = 0;
        beginIOOp(run.sizeBytes, extent, extentLeft);
        const P<CVMDKSparseExtentFile> sparse = sparseExtentOf(extent);
        const int64 offset = run.position - m_currentExtentStartBytes;
        const int64 offsetInGrain = offset % m_grainSizeBytes;
        int64 posSectors = 0;
        int64 slotSectors = 0;
        const int64 grains = sparse->findStoredGrains(
            offset / m_grainSizeBytes, divideRoundingUp(offsetInGrain + run.sizeBytes, m_grainSizeBytes),
            posSectors, slotSectors);
        run.file = m_currentExtentURI;
        run.isCompressed = m_compressed;
        run.isEncrypted = getEncrypted();
        run.sizeBytes = std::min(run.sizeBytes, grains * m_grainSizeBytes - offsetInGrain);
        if (m_compressed) {
            run.storedBytes = slotSectors * vmdkSectorSize;
        } else {
            run.filePosition = posSectors * vmdkSectorSize + offsetInGrain;
            run.storedBytes = run.sizeBytes;
        }
    } catch (...) {
        m_position = oldPosition;
        throw;
    }
    m_position = oldPosition;
}

UVMDKStoredRun CVMDKDisk::findStoredRun(int64 position, int64 mostBytes) {
    const UVMDKGrainRun found = findGrainRun(position);
    UVMDKStoredRun run{found.position, std::min(found.sizeBytes, mostBytes), found.layer};
    if (run.layer == UVMDKGrainRun::nowhere)
        return run;
    CVMDKDisk* holder = this;
    for (int layer = 0; layer < run.layer; ++layer) // a provider keeps its disk
        holder = castTo<CVMDKParentDiskDataProvider>(holder->m_parentDataProvider)->getParentDisk().get();
    holder->findPlace(run);
    return run;
}

P<CVMDKSpaceInfo> CVMDKDisk::gatherSpaceInfo() {
    const int64 oldPosition = m_position;
    P<CVMDKSpaceInfo> total(new CVMDKSpaceInfo);
    seek(0);
    while (m_position < m_sizeBytes) {
        P<IVMDKExtentFile> extent;
        int64 extentBytes = 0;
        beginIOOp(m_sizeBytes - m_position, extent, extentBytes);
        total->addSpaceInfo(*extent->gatherSpaceInfo());
        m_position += extentBytes;
    }
    seek(oldPosition);
    return total;
}

// --- Descriptor ---

void CVMDKDisk::storeDescriptor() {
    verifyHaveWriteAccess("storeDescriptor");
    const P<CVMDKDescriptorAccessor> accessor = openDescriptorAccessor();
    *accessor->getDescriptor() = *m_descriptor;
    accessor->storeDescriptor(true);
}

// The descriptor in memory never says what the file does not: a change that cannot be stored is undone.
template <class Change>
void CVMDKDisk::changeDescriptor(const char* method, Change change) {
    verifyHaveWriteAccess(method);
    const CVMDKDescriptor old(*m_descriptor);
    try {
        change(*m_descriptor);
        storeDescriptor();
    } catch (...) {
        *m_descriptor = old;
        throw;
    }
}

void CVMDKDisk::changeParentRelPath(const String& relPath) {
    changeDescriptor("changeParentRelPath",
                     [&](CVMDKDescriptor& descriptor) { descriptor.setParentFileNameHint(relPath); });
}

void CVMDKDisk::changeParent(const String& relPath, unsigned int contentID) {
    changeDescriptor("changeParent", [&](CVMDKDescriptor& descriptor) {
        descriptor.setParentFileNameHint(relPath);
        descriptor.setParentContentID(contentID);
    });
}

void CVMDKDisk::removeParent() {
    changeDescriptor("removeParent", [](CVMDKDescriptor& descriptor) {
        descriptor.removeValue("parentFileNameHint");
        descriptor.setParentContentID(noContentID);
    });
}

void CVMDKDisk::changePassword(const String& newPassword) {
    verifyHaveWriteAccess("changePassword");
    if (!m_cipher)
        throw CError("VMDK is not encrypted, so there is no password to be changed.", String(), -1,
                     CProps().add("uri", m_mainFileURI.toString(true)));
    if (newPassword.isEmpty())
        throw CInvalidArgError("CVMDKDisk::changePassword", "The new password is empty.");
    const UKeySettings settings = wrapDataKey(m_dataKey, m_encryptionIV, newPassword, makeKeySalt());
    const P<CVMDKDescriptorAccessor> accessor = openDescriptorAccessor();
    const P<IIOStream> stream = accessor->getStream();
    const int64 oldPosition = stream->getPosition();
    TBuffer<unsigned char> area(accessor->getDescriptorAreaSize());
    stream->seek(accessor->getDescriptorAreaPosition());
    stream->read(area.getData(), static_cast<int>(area.getUsed()));
    CKeySettingsEdit(area, settings).write(*stream, accessor->getDescriptorAreaPosition());
    stream->seek(oldPosition);
    m_descriptor->setLumEncryptionKeyDerivationAlgorithm(settings.derivation);
    m_descriptor->setLumEncryptionKeyDerivationSalt(settings.salt);
    m_descriptor->setLumEncryptedEncryptionKey(settings.wrappedKey);
}

} // namespace tessel
