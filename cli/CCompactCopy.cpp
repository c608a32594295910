#include "CCompactCopy.h"

#include "CDiskWriter.h"
#include "Confinement.h"
#include "Errors.h"
#include "Names.h"
#include "StoredGrain.h"
#include "lum/Numbers.h"
#include "platform.h"
#include "tessel/CVMDKDescriptorAccessor.h"
#include "tessel/VMDKEmptyExtentFile.h"
#include "tessel/VMDKFileReference.h"

#include <algorithm>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

bool isZero(const TBuffer<unsigned char>& bytes) {
    return isZeroMemory(bytes.getData(), static_cast<std::size_t>(bytes.getUsed()));
}

/// An extent need not end with a whole grain, but is made of whole ones.
void setCapacity(IFileSystem* files, const CURI& uri, unsigned long long sectors) {
    constexpr int64 footerFromEnd = 2 * vmdkSectorSize;
    const P<CVMDKSparseExtentHeader> header = readExtentHeader(files, uri);
    header->setCapacitySectors(sectors);
    const P<IIOStream> stream = openExistingVMDKFileStream(files, uri, IIOStream::Access_ReadWrite);
    CDataOutStream out(stream.get());
    header->store(out);
    if (header->getCompressAlgorithm() != 0) {
        stream->seek(stream->getLength() - footerFromEnd);
        header->store(out);
    }
    stream->close();
}

} // namespace

/// Moves grains from a disk to its copy.
class CCompactCopy::CCopier {
public:
    CCopier(std::string name, CVMDKDisk* from, CVMDKDisk* to, CVMDKDisk* parent)
        : m_name(std::move(name)),
          m_from(from),
          m_to(to),
          m_parent(parent),
          m_grainSize(from->getGrainSizeBytes()),
          m_preparer(from->createDataPreparer()),
          m_writer(to, true) {}

    void run(CProgress& progress) {
        const int64 size = m_from->getSizeBytes();
        for (int64 position = 0; position < size; progress.advanceTo(position)) {
            throwIfInterrupted();
            const UVMDKGrainRun run = m_from->findGrainRun(position);
            const int64 end = std::min(size, run.position + run.sizeBytes);
            if (run.layer != 0) {
                position = end;
                continue;
            }
            while (position < end) {
                throwIfInterrupted();
                const int64 pieceEnd = std::min(end, (position / m_grainSize + 1) * m_grainSize);
                if (pieceEnd - position == m_grainSize && run.isStoredAlike)
                    copyStored(position);
                else
                    copyBytes(position, pieceEnd - position);
                position = pieceEnd;
                progress.advanceTo(position);
            }
        }
        m_to->flushChanges();
    }

private:
    /// Whether grains of zeros at this place hide what a parent holds.
    bool hidesSomething(int64 position) {
        if (!m_parent || position >= m_parent->getSizeBytes())
            return false;
        const int64 count = std::min(m_grainSize, m_parent->getSizeBytes() - position);
        bool isHeld = false;
        for (int64 at = position; at < position + count && !isHeld;) {
            const UVMDKGrainRun run = m_parent->findGrainRun(at);
            isHeld = run.layer != UVMDKGrainRun::nowhere;
            at = run.position + run.sizeBytes;
        }
        if (!isHeld)
            return false;
        m_below.setUsed(count);
        m_parent->seek(position);
        m_parent->read(m_below.getData(), static_cast<int>(count));
        return !isZero(m_below);
    }

    void copyStored(int64 position) {
        m_from->seek(position);
        m_from->readPreparedGrainData(*m_stored);
        bool isPassed = true;
        bool isOfZeros = false;
        if (m_from->getCompressed()) {
            verifyIsRecordOf(m_name, position, *m_stored);
            const int64 mostBytes = m_preparer->getWorstCaseGrainSizeSectors() * vmdkSectorSize;
            isPassed = mayPassAsStored(*m_stored, m_grainSize, mostBytes);
            isOfZeros = !isPassed && isZero(*m_preparer->unprepareGrainData(m_stored.get(), m_plain.get()));
        } else {
            isOfZeros = isZero(*m_stored);
        }
        if (isOfZeros && !hidesSomething(position))
            return;
        // What another writer made may be longer than any record of this library.
        if (!isPassed)
            return copyBytes(position, m_grainSize);
        m_to->seek(position);
        m_to->writePreparedGrainData(*m_stored);
    }

    void copyBytes(int64 position, int64 count) {
        m_plain->setUsed(count);
        m_from->seek(position);
        m_from->read(m_plain->getData(), static_cast<int>(count));
        m_writer.write(position, m_plain->getData(), count);
    }

    std::string m_name;
    CVMDKDisk* m_from;
    CVMDKDisk* m_to;
    CVMDKDisk* m_parent;
    int64 m_grainSize;
    P<CVMDKDataPreparer> m_preparer;
    CDiskWriter m_writer;
    P<TBuffer<unsigned char>> m_stored{new TBuffer<unsigned char>};
    P<TBuffer<unsigned char>> m_plain{new TBuffer<unsigned char>};
    TBuffer<unsigned char> m_below;
};

CCompactCopy::CCompactCopy(std::string name, CVMDKDisk* disk, CVMDKDisk* parent, IFileSystem* files,
                           const String& password)
    : m_name(std::move(name)),
      m_disk(disk),
      m_parent(parent),
      m_files(files),
      m_main(about(m_name, [&] { return readMainFile(files, disk->getMainFileURI()); })),
      m_mainPath(pathFromURI(m_main.uri)),
      m_folder(m_mainPath.parent_path()) {
    about(m_name, [&] {
        addExtents();
        verifyExtentsAreOwn();
        // Opens each of them, which tells what no header may say.
        for (const auto& [key, value] : disk->getExtentMap())
            disk->findGrainRun(key.startSector * vmdkSectorSize);
    });
    run([&] {
        makeFiles();
        m_copy = new CVMDKDisk(files, uriFromPath(m_folder.getPath() / m_mainPath.filename()),
                               IIOStream::Access_ReadWrite, password, -1, nullptr, parent);
        // What the guest sees stays the same, and children of this disk rely on that.
        m_copy->setContentIDUpdatesEnabled(false);
    });
}

CCompactCopy::~CCompactCopy() {
    m_copy = nullptr;
}

/// The place where the files are made is nothing that the user knows.
void CCompactCopy::fail(const CError& error) const {
    const std::string text = explainError(error, nameFromPath(m_folder.getPath() / m_mainPath.filename()));
    throw CFailure(m_name, withoutFolder(text, m_folder.getPath()));
}

void CCompactCopy::addExtents() {
    for (const auto& extent : m_main.getExtents()) {
        const fs::path path = pathFromURI(m_main.findExtent(*extent));
        if (path.parent_path() != m_mainPath.parent_path())
            throw CFailure(m_name,
                           "Its files must lie side by side, and this one does not: " + nameFromPath(path));
        if (isLink(path))
            throw CFailure(m_name,
                           "One of its files is a link, which would be replaced: " + nameFromPath(path));
        const auto isSame = [&](const UFile& file) { return file.name == path.filename(); };
        if (std::any_of(m_extents.begin(), m_extents.end(), isSame))
            throw CFailure(m_name, "Two of its extents are the same file: " + nameFromPath(path));
        m_extents.push_back({path.filename(), somethingExists(path)});
    }
}

/// A main file that was copied alone names the files of another disk, which is not kept out by this one's
/// lock.
void CCompactCopy::verifyExtentsAreOwn() const {
    for (std::size_t i = 0; i < m_extents.size(); ++i) {
        const fs::path path = placeOf(m_extents[i]);
        const std::string name = nameFromPath(path.filename());
        if (!m_extents[i].wasThere || (i == 0 && m_main.isEmbedded) ||
            name == makeExtentName(nameFromPath(m_mainPath.filename()), name, i))
            continue;
        const std::string owner = findOtherOwner(confine(m_files.get(), m_name).get(), path, {m_mainPath});
        if (!owner.empty())
            throw CFailure(m_name, "It names a file that is another disk's: " + nameFromPath(path) +
                                       " (disk: " + owner + ")");
    }
}

void CCompactCopy::makeFiles() {
    const P<CVMDKDescriptor> descriptor(new CVMDKDescriptor(*m_main.descriptor));
    std::size_t next = 0;
    descriptor->renameExtents([&](const CVMDKExtentInfo& extent) {
        return extent.getSizeSectors() == 0 ? extent.getFilename()
                                            : String::fromUTF8(nameFromPath(m_extents[next++].name));
    });
    if (!m_main.isEmbedded) {
        // Only so that the copy can be opened: the main file has no grains, and stays.
        descriptor->setEncodingUTF8();
        const std::string text = descriptor->toString().toUTF8();
        CRawFile::createNew(m_folder.getPath() / m_mainPath.filename(), m_mainPath)
            .write(0, text.data(), static_cast<int>(text.size()));
    }
    const bool isOnDemand = descriptor->getLumCreateExtentFilesOnDemand();
    for (std::size_t i = 0; i < m_extents.size(); ++i)
        if (i == 0 || !isOnDemand)
            makeExtent(uriFromPath(placeOf(m_extents[i])), uriFromPath(stagedPath(m_extents[i])),
                       i == 0 && m_main.isEmbedded ? descriptor.get() : nullptr);
}

void CCompactCopy::makeExtent(const CURI& from, const CURI& to, CVMDKDescriptor* descriptor) {
    const P<CVMDKSparseExtentHeader> header = readExtentHeader(m_files.get(), from);
    const auto capacity = static_cast<int64>(header->getCapacitySectors());
    const int64 grainSize = m_disk->getGrainSizeBytes() / vmdkSectorSize;
    int64 descriptorSectors = 0;
    if (descriptor) {
        descriptor->setEncodingUTF8();
        const auto needed = static_cast<int64>(descriptor->toString().toUTF8().size());
        descriptorSectors = std::max(static_cast<int64>(header->getDescriptorSizeSectors()),
                                     divideRoundingUp(needed, vmdkSectorSize));
    }
    const TBuffer<unsigned char> zeros(std::max(descriptorSectors, grainSize) * vmdkSectorSize);
    createEmptyVMDKSparseExtentFile(m_files.get(), to, m_disk->getCompressed(),
                                    divideRoundingUp(capacity, grainSize), grainSize, zeros, descriptor,
                                    descriptorSectors, header->getEncryptionKeyHash());
    if (capacity % grainSize != 0)
        setCapacity(m_files.get(), to, header->getCapacitySectors());
}

void CCompactCopy::copyGrains(CProgress& progress) {
    run([&] { CCopier(m_name, m_disk.get(), m_copy.get(), m_parent.get()).run(progress); });
    m_copy = nullptr;
}

int64 CCompactCopy::getOldSizeBytes() const {
    int64 size = 0;
    for (const UFile& file : m_extents)
        if (file.wasThere)
            size += static_cast<int64>(fs::file_size(placeOf(file)));
    return size;
}

int64 CCompactCopy::getNewSizeBytes() const {
    int64 size = 0;
    for (const UFile& file : m_extents)
        if (somethingExists(stagedPath(file)))
            size += static_cast<int64>(fs::file_size(stagedPath(file)));
    return size;
}

void CCompactCopy::replaceFiles() {
    for (const UFile& file : m_extents)
        if (file.wasThere && somethingExists(stagedPath(file)))
            copyAccess(placeOf(file), stagedPath(file));
    // Old and new files hold the same, so that any mixture of them is the disk.
    for (const UFile& file : m_extents) {
        if (somethingExists(stagedPath(file))) {
            moveFile(stagedPath(file), placeOf(file), file.wasThere);
        } else if (file.wasThere) {
            // It held nothing, and is made again when something is written to it.
            std::error_code error;
            fs::remove(placeOf(file), error);
            if (error)
                throw CFailure(nameFromPath(placeOf(file)),
                               "Cannot remove file: " + describeSystemError(error));
        }
    }
    syncFolder(m_mainPath.parent_path());
    m_disk = nullptr;
}

} // namespace tessel::cli
