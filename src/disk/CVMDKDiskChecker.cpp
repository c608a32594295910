#include "tessel/CVMDKDiskChecker.h"

#include "disk/CCheckSink.h"
#include "disk/CExtentChecker.h"
#include "lum/CFileSystemError.h"
#include "lum/CLockFile.h"
#include "lum/LittleEndian.h"
#include "tessel/CVMDKDescriptorAccessor.h"
#include "tessel/CVMDKParentDiskDataProvider.h"
#include "tessel/VMDKFileReference.h"
#include "tessel/VMDKRenamedFile.h"

#include <algorithm>
#include <optional>
#include <set>

namespace tessel {

namespace {

using Finding = UVMDKCheckFinding;

constexpr unsigned int noContentID = 0xFFFFFFFF;

/// The descriptor of a compressed extent whose header is damaged, by its footer; null when that fails too.
P<CVMDKDescriptor> readDescriptorByFooter(IIOStream& stream) {
    const P<CVMDKSparseExtentHeader> footer = CExtentChecker::findFooter(stream);
    if (!footer)
        return nullptr;
    const uint64 fileSectors = static_cast<uint64>(stream.getLength() / vmdkSectorSize);
    const uint64 offset = footer->getDescriptorOffsetSectors();
    const uint64 size = footer->getDescriptorSizeSectors();
    if (offset == 0 || size == 0 || offset > fileSectors || size > fileSectors - offset ||
        size > static_cast<uint64>(CVMDKDescriptorAccessor::maxDescriptorSize / vmdkSectorSize))
        return nullptr;
    TBuffer<unsigned char> text(static_cast<int64>(size) * vmdkSectorSize);
    stream.seek(static_cast<int64>(offset) * vmdkSectorSize);
    stream.read(text.getData(), static_cast<int>(text.getUsed()));
    return CVMDKDescriptorAccessor::parse(text, stream.getURI());
}

P<CVMDKDescriptor> readDescriptor(IFileSystem* fileSystem, const CURI& uri) {
    const P<IIOStream> stream = openVMDKFileStream(fileSystem, uri, IIOStream::Access_Read);
    const P<CVMDKDescriptorAccessor> accessor(
        new CVMDKDescriptorAccessor(stream.get(), IIOStream::Access_Read));
    return accessor->getDescriptor();
}

struct UMainFile {
    P<CVMDKDescriptor> descriptor;
    bool isEmbedded = false; ///< the descriptor is in an extent
};

bool hasMagicNumber(IIOStream& stream) {
    unsigned char bytes[4] = {};
    stream.seek(0);
    stream.readLax(bytes, sizeof bytes);
    stream.seek(0);
    const auto magic = loadLittleEndian<uint32>(bytes);
    return magic == CVMDKSparseExtentHeader::magicNumber ||
           magic == CVMDKSparseExtentHeader::magicNumberEncrypted;
}

/// A damaged magic number makes an extent look like a text file. The footer tells that it is none.
UMainFile readMainFile(IFileSystem* fileSystem, const CURI& uri) {
    const P<IIOStream> stream = openVMDKFileStream(fileSystem, uri, IIOStream::Access_Read);
    if (!hasMagicNumber(*stream))
        if (const P<CVMDKDescriptor> descriptor = readDescriptorByFooter(*stream))
            return {descriptor, true};
    try {
        const P<CVMDKDescriptorAccessor> accessor(
            new CVMDKDescriptorAccessor(stream.get(), IIOStream::Access_Read));
        return {accessor->getDescriptor(), accessor->getEmbeddedInSparseExtentFile()};
    } catch (const CError&) {
        if (const P<CVMDKDescriptor> descriptor = readDescriptorByFooter(*stream))
            return {descriptor, true};
        throw;
    }
}

Finding makeFinding(Finding::Kind kind, const CURI& uri, const String& message) {
    Finding finding;
    finding.kind = kind;
    finding.uri = uri;
    finding.message = message;
    return finding;
}

/// Follows a disk's parents by their descriptors, as far as they fit their children.
class CParentsChecker {
public:
    CParentsChecker(IFileSystem* fileSystem, CCheckSink& sink) : m_fileSystem(fileSystem), m_sink(&sink) {}

    void check(const CURI& uri, P<CVMDKDescriptor> descriptor) {
        TArray<CURI> chain;
        CURI child = uri;
        while (descriptor) {
            chain.push_back(child);
            const std::optional<CURI> parent = findParent(child, *descriptor);
            if (!parent)
                return;
            if (std::find(chain.begin(), chain.end(), *parent) != chain.end())
                return add(Finding::Kind_ParentChainInvalid, child,
                           "the chain of parents comes back to " + nameOf(*parent));
            if (static_cast<int>(chain.size()) >= CVMDKParentDiskDataProvider::maxChainLength)
                return add(Finding::Kind_ParentChainInvalid, child,
                           "the chain of parents is deeper than " +
                               toDecimal(CVMDKParentDiskDataProvider::maxChainLength) + " disks");
            descriptor = openParent(child, *parent, descriptor->getParentContentID());
            child = *parent;
        }
    }

private:
    static String nameOf(const CURI& uri) { return "'" + uri.toString(true) + "'"; }

    void add(Finding::Kind kind, const CURI& uri, const String& message,
             Finding::Severity severity = Finding::Severity_Damage) {
        Finding finding = makeFinding(kind, uri, message);
        finding.severity = severity;
        m_sink->add(finding);
    }

    std::optional<CURI> findParent(const CURI& child, const CVMDKDescriptor& descriptor) {
        String problem;
        try {
            if (descriptor.getParentContentID() == noContentID)
                return std::nullopt;
            return vmdkFileReferenceToURI(child.getParent(), descriptor.getParentFileNameHint());
        } catch (const CError& error) {
            problem = error.getMessage();
        }
        add(Finding::Kind_ParentMissing, child,
            "the descriptor names no parent that can be found: " + problem);
        return std::nullopt;
    }

    /// Null, after telling why, when the chain cannot be followed any further.
    P<CVMDKDescriptor> openParent(const CURI& child, const CURI& parent, unsigned int expectedID) {
        P<CVMDKDescriptor> descriptor;
        String problem;
        Finding::Severity severity = Finding::Severity_Damage;
        unsigned int actualID = 0;
        try {
            descriptor = readDescriptor(m_fileSystem, parent);
            actualID = descriptor->getContentID();
        } catch (const CFileSystemError& error) {
            problem = error.getMessage();
            if (error.getProblem() != CFileSystemError::Problem_NotFound)
                severity = Finding::Severity_Unchecked;
        } catch (const CError& error) {
            problem = error.getMessage();
        }
        if (!problem.isEmpty()) {
            add(Finding::Kind_ParentMissing, child,
                "the parent " + nameOf(parent) + " cannot be opened: " + problem, severity);
            return nullptr;
        }
        if (actualID != expectedID)
            add(Finding::Kind_ContentIDMismatch, child,
                "the parent " + nameOf(parent) + " has the content ID " + toHexString(actualID) +
                    ", this child was made from " + toHexString(expectedID));
        return descriptor;
    }

    IFileSystem* m_fileSystem;
    CCheckSink* m_sink;
};

/// Whether a key is needed, or was given to be tried.
bool wantsKeys(const UDiskToCheck& disk, const String& password) {
    return disk.isEncrypted && !disk.quick && (disk.isCompressed || !password.isEmpty());
}

void readKeyHash(const CVMDKDescriptor& descriptor, const CURI& uri, UDiskToCheck& disk, CCheckSink& sink) {
    String problem;
    try {
        disk.keyHash = descriptor.getLumEncryptionKeyHash();
        return;
    } catch (const CError& error) {
        problem = error.getMessage();
    }
    sink.add(
        makeFinding(Finding::Kind_ExtentMismatch, uri, "the descriptor has no hash of the key: " + problem));
}

} // namespace

CVMDKDiskChecker::CVMDKDiskChecker(IFileSystem* fileSystem, const CURI& mainFileURI)
    : m_fileSystem(fileSystem), m_mainFileURI(mainFileURI.toNormalized()) {}

CVMDKDiskChecker::~CVMDKDiskChecker() = default;

void CVMDKDiskChecker::check(const String& password, bool quick, IVMDKCheckReport& report) {
    m_damageCount = m_informationCount = m_uncheckedCount = m_extentCount = m_grainCount = 0;
    P<CLockFile> lock;
    if (m_locks)
        lock = new CLockFile(m_fileSystem.get(),
                             m_mainFileURI.getParent() << (m_mainFileURI.getName() + ".lock"),
                             CLockFile::LockType_Shared, false, true);
    const UMainFile mainFile = readMainFile(m_fileSystem.get(), m_mainFileURI);
    const P<CVMDKDescriptor> descriptor = mainFile.descriptor;
    const CProps uriProps = CProps().add("uri", m_mainFileURI.toString(true));
    verifyCreateType(*descriptor, uriProps);
    UDiskToCheck disk;
    disk.quick = quick;
    disk.isCompressed = descriptor->getCreateType() == "streamOptimized";
    disk.isEncrypted = !descriptor->getLumEncryptionAlgorithm().isEmpty();
    disk.isOnDemand = descriptor->getLumCreateExtentFilesOnDemand();
    UDiskKeys keys;
    if (wantsKeys(disk, password)) {
        keys = unlockDiskKeys(*descriptor, password, uriProps);
        disk.keys = &keys;
    }
    verifyNoUnknownExtentLines(*descriptor, uriProps);
    TArray<P<CVMDKExtentInfo>> extents;
    descriptor->getExtentEntries(extents);
    // Twice, lest they all are in memory: what cannot be is told before anything is found.
    CURI firstURI;
    placeExtents(extents, m_mainFileURI.getParent(), uriProps, [&](UExtentLine&& line) {
        if (line.startSector == 0)
            firstURI = std::move(line.uri);
    });
    String parentID;
    const bool isRenamed =
        m_takesRenamed && mainFile.isEmbedded && isRenamedVMDKFile(*descriptor, m_mainFileURI);
    disk.isChild = descriptor->tryGetValue("parentCID", parentID) && parentID.Lower() != "ffffffff";

    CCheckSink sink(report);
    if (disk.isEncrypted)
        readKeyHash(*descriptor, m_mainFileURI, disk, sink);
    if (mainFile.isEmbedded && !isRenamed && firstURI != m_mainFileURI) {
        Finding finding = makeFinding(
            Finding::Kind_MainFileUnused, m_mainFileURI,
            "the descriptor in this file names another one as the first extent, '" + firstURI.toString(true) +
                "', and that one is checked: the disk may have been renamed or copied");
        finding.severity = Finding::Severity_Information;
        sink.add(finding);
    }
    CParentsChecker(m_fileSystem.get(), sink).check(m_mainFileURI, descriptor);
    CExtentChecker checker(m_fileSystem.get(), disk, sink);
    std::set<std::string> names;
    int64 index = -1;
    placeExtents(extents, m_mainFileURI.getParent(), uriProps, [&](UExtentLine&& line) {
        ++index;
        if (isRenamed)
            line.uri = m_mainFileURI;
        if (names.insert(line.uri.toString(false).toUTF8()).second) {
            checker.check(line, index);
            return;
        }
        Finding finding =
            makeFinding(Finding::Kind_ExtentMismatch, line.uri, "the file is that of another extent as well");
        finding.extentIndex = index;
        sink.add(finding);
    });
    m_damageCount = sink.getCount(Finding::Severity_Damage);
    m_informationCount = sink.getCount(Finding::Severity_Information);
    m_uncheckedCount = sink.getCount(Finding::Severity_Unchecked);
    m_extentCount = sink.getExtentCount();
    m_grainCount = sink.getGrainCount();
}

const char* getVMDKCheckKindName(UVMDKCheckFinding::Kind kind) noexcept {
    static constexpr const char* names[] = {
        "mainFileUnused",       "extentMissing",      "extentMismatch",   "headerInvalid",
        "trailDiffers",         "writeInterrupted",   "slotSizesMissing", "directoriesDiffer",
        "tablePositionInvalid", "tablesDiffer",       "entryBehindEnd",   "entryInMetadata",
        "entryMisaligned",      "slotShared",         "slotsOverlap",     "slotSizeInvalid",
        "slotSizeWithoutSlot",  "recordOfOtherGrain", "recordTooLong",    "recordDamaged",
        "recordSizeWrong",      "deadSpace",          "parentMissing",    "parentChainInvalid",
        "contentIDMismatch",    "unreadable",         "notSupported",
    };
    static_assert(std::size(names) == UVMDKCheckFinding::Kind_NotSupported + 1);
    return names[kind];
}

} // namespace tessel
