#include "CServedDisk.h"

#include "DiskConfinement.h"
#include "DiskSignature.h"
#include "lum/CIOError.h"
#include "lum/Logging.h"
#include "tessel/CVMDKParentDiskDataProvider.h"
#include "tessel/VMDKFileReference.h"

#include <algorithm>
#include <array>

namespace tessel::nbdkit {

namespace {

/// A raw image is the usual mistake, which the library would only find no descriptor in.
void verifyMayBeDisk(IFileSystem* files, const CURI& uri) {
    const P<IIOStream> stream = files->openFile(uri, IIOStream::Access_Read);
    std::array<unsigned char, diskSignatureSize> bytes{};
    const int count = stream->readLax(bytes.data(), diskSignatureSize);
    if (isSurelyNoVMDK(bytes.data(), count))
        throw CIOError(CIOError::Code_BadFormat,
                       "This is no VMDK disk: it begins with neither a sparse extent nor a descriptor.",
                       CProps().add("uri", uri.toString(true)));
}

/// Whoever renamed or copied a disk by hand must not find the other file served, nor written to.
P<CVMDKDisk> openAsWhatItIs(IFileSystem* files, const CURI& uri, IIOStream::Access access,
                            const String& password, int level) {
    P<CVMDKDisk> disk = CVMDKDisk::openRenamed(files, uri, access, password, level, nullptr, nullptr);
    if (!disk->isRenamed())
        return disk;
    TArray<P<CVMDKExtentInfo>> extents;
    disk->getDescriptor()->getExtentEntries(extents);
    std::erase_if(extents, [](const auto& extent) { return extent->getSizeSectors() == 0; });
    const String reference = extents.front()->getFilename();
    const CURI real = files->followLinks(disk->getMainFileURI());
    // Through a link it is the file that has the name.
    if (vmdkFileReferenceToURI(real.getParent(), reference) != real)
        logWarning(uriToNativePath(disk->getMainFileURI()) +
                   ": The disk was renamed or copied by hand: its descriptor still names \"" + reference +
                   "\", which is not looked at (tessel rename puts it right)");
    return disk;
}

P<CVMDKDisk> openDisk(IFileSystem* files, const CParameters& parameters) {
    verifyMayBeDisk(files, parameters.getFile());
    const auto access = parameters.isReadOnly() ? IIOStream::Access_Read : IIOStream::Access_ReadWrite;
    return openAsWhatItIs(files, parameters.getFile(), access, parameters.getPassword(),
                          parameters.getLevel());
}

} // namespace

CServedDisk::CServedDisk(IFileSystem* files, const CParameters& parameters)
    : CServedDisk(confineToDisk(files, parameters.getFile(), parameters.getFolders()), parameters) {}

CServedDisk::CServedDisk(const P<CConfinedFileSystem>& files, const CParameters& parameters)
    : m_disk(openDisk(files.get(), parameters)),
      m_writer(m_disk.get(), false),
      m_grainSize(m_disk->getGrainSizeBytes()),
      m_isWritable(!parameters.isReadOnly()) {
    // What a disk may name its parents may name, not what lies beside those.
    openParents(files.get(), parameters.getPassword());
    verifyExtents();
}

void CServedDisk::openParents(IFileSystem* files, const String& password) {
    for (P<CVMDKDisk> child = m_disk; !child->getParentDiskMainURI().isEmpty(); child = m_parents.back()) {
        const CURI uri = child->getParentDiskMainURI();
        const CProps props = CProps().add("uri", uri.toString(true));
        if (m_parents.size() >= static_cast<std::size_t>(CVMDKParentDiskDataProvider::maxChainLength))
            throw CIOError(CIOError::Code_BadFormat,
                           "The chain of parents is too deep, or comes back to itself.", props);
        const P<CVMDKDisk> parent = openAsWhatItIs(files, uri, IIOStream::Access_Read, password, -1);
        if (parent->getDescriptor()->getContentID() != child->getDescriptor()->getParentContentID())
            throw CIOError(CIOError::Code_BadFormat,
                           "The parent disk has changed since a child was made from it.", props);
        m_parents.push_back(parent);
    }
}

/// Opens each extent once, of the parents too.
void CServedDisk::verifyExtents() {
    const auto verify = [](CVMDKDisk& disk) {
        for (const auto& [key, value] : disk.getExtentMap()) {
            if (key.sizeSectors > 0)
                disk.findGrainRun(key.startSector * vmdkSectorSize);
        }
    };
    std::for_each(m_parents.rbegin(), m_parents.rend(), [&](const P<CVMDKDisk>& disk) { verify(*disk); });
    verify(*m_disk);
}

void CServedDisk::read(int64 position, void* buffer, int64 sizeBytes) {
    m_disk->seek(position);
    m_disk->read(buffer, static_cast<int>(sizeBytes));
}

void CServedDisk::write(int64 position, const void* data, int64 sizeBytes) {
    m_isChanged = true;
    m_writer.write(position, static_cast<const unsigned char*>(data), sizeBytes);
}

void CServedDisk::writeZeros(int64 position, int64 sizeBytes) {
    m_isChanged = true;
    m_writer.writeZeros(position, sizeBytes);
}

bool CServedDisk::isZeroingFast(int64 position, int64 sizeBytes) {
    if (m_disk->getCompressed())
        return true;
    const int64 end = position + sizeBytes;
    while (position < end) {
        const URun run = findRun(position);
        if (!run.isHole)
            return false;
        position = run.end;
    }
    return true;
}

void CServedDisk::trim(int64 position, int64 sizeBytes) {
    const int64 end = position + sizeBytes;
    while (position < end) {
        const UVMDKGrainRun run = m_disk->findGrainRun(position);
        const int64 runEnd = std::min(end, run.position + run.sizeBytes);
        const int64 firstGrain = (position + m_grainSize - 1) / m_grainSize * m_grainSize;
        const int64 lastGrainEnd = runEnd == getSizeBytes() ? runEnd : runEnd / m_grainSize * m_grainSize;
        if (run.layer == 0 && firstGrain < lastGrainEnd)
            writeZeros(firstGrain, lastGrainEnd - firstGrain);
        position = runEnd;
    }
}

CServedDisk::URun CServedDisk::findRun(int64 position) {
    const UVMDKGrainRun run = m_disk->findGrainRun(position);
    return {run.position + run.sizeBytes, run.layer == UVMDKGrainRun::nowhere};
}

void CServedDisk::flush() {
    if (!m_isChanged)
        return;
    m_disk->flushChanges();
    m_isChanged = false;
}

} // namespace tessel::nbdkit
