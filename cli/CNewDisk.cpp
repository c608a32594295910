#include "CNewDisk.h"

#include "CInterruptibleFiles.h"
#include "Confinement.h"
#include "Errors.h"
#include "Names.h"
#include "Sizes.h"
#include "Targets.h"
#include "lum/CNativeFileSystem.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

constexpr int64 singleFile = -1;

/// The names of the files that an older disk leaves behind when its main file is replaced: extents of the
/// kind NAME-s00000.vmdk beside it, which nobody else can be using.
std::vector<fs::path> listOldExtents(const fs::path& target) {
    std::vector<fs::path> names;
    if (!somethingExists(target))
        return names;
    try {
        TArray<P<CVMDKExtentInfo>> extents;
        readDescriptor(nameFromPath(target))->getExtentEntries(extents);
        const std::string stem = nameFromPath(target.stem()) + "-s";
        for (const auto& extent : extents) {
            const std::string name = extent->getFilename().toUTF8();
            const bool isBeside = name.find_first_of("/\\") == std::string::npos;
            if (isBeside && name.compare(0, stem.size(), stem) == 0 &&
                hasExtension(name, nameFromPath(target.extension()).c_str()))
                names.push_back(pathFromName(name));
        }
    } catch (const std::exception&) {
        names.clear(); // what is replaced is no disk
    }
    return names;
}

int64 parseLimit(const UCreateOptions& options, bool isParentSplit) {
    if (!options.split.empty())
        return parseSize(options.split, "--split");
    return isParentSplit ? CVMDKDisk::getDefaultFileSizeLimit() : singleFile;
}

bool isSplit(CVMDKDisk& disk) {
    return disk.getDescriptor()->getCreateType() == "twoGbMaxExtentSparse";
}

} // namespace

void UCreateOptions::addTo(CLI::App& verb) {
    addKindTo(verb);
    verb.add_flag("--force", force, "Replace an existing disk");
}

void UCreateOptions::addKindTo(CLI::App& verb) {
    verb.add_flag("--compressed", compressed, "Compress grains (streamOptimized)");
    verb.add_option("--level", level, "Compression level, 0 (none) to 9 (smallest)")
        ->type_name("N")
        ->check(CLI::Range(0, 9));
    verb.add_flag("--split{2G}", split, "Split into files below LIMIT (--split=LIMIT), 2G when none is given")
        ->type_name("LIMIT");
    verb.add_flag("--on-demand", onDemand, "Make the files of a split disk when they are first written to");
    verb.add_option("--parent", parent, "Make a child of this disk, which holds only what differs")
        ->type_name("PARENT");
}

bool UCreateOptions::asksForVMDK() const {
    return compressed || level >= 0 || !split.empty() || onDemand || !parent.empty();
}

UNewDiskKind chooseKindOfNewDisk(const UCreateOptions& options, CVMDKDisk* parent) {
    const bool isParentCompressed = parent && parent->getCompressed();
    if (parent && options.compressed && !isParentCompressed)
        throw CUsageError("--compressed: the parent is not compressed, and a child is of its parent's kind");
    const bool compressed = options.compressed || isParentCompressed;
    if (options.level >= 0 && !compressed)
        throw CUsageError("--level: only compressed disks have a level (--compressed)");
    const int64 limit = parseLimit(options, parent && isSplit(*parent));
    if (options.onDemand && limit == singleFile)
        throw CUsageError("--on-demand: only a split disk has files to be made later (--split)");
    return {compressed, limit};
}

void throwUsageErrorOfNewDisk(const CError& error, const UCreateOptions& options) {
    const String& message = error.getMessage();
    if (message.StartsWith("Internal error: calculated VMDK maxExtentPayloadBytes"))
        throw CUsageError("--split=" + options.split +
                          ": a file of this size has no room for data beside its metadata; choose a "
                          "larger limit, such as 2G");
    if (message.StartsWith("Invalid VMDK disk size for single unsplittable disk file"))
        throw CUsageError("A disk in a single file has at most 2 TiB; a larger one must be split (--split)");
    if (message.StartsWith("Internal error: calculated VMDK descriptor size exceeds"))
        throw CUsageError("--split: a disk of this size would have too many files; choose a larger limit "
                          "(2T at most) or a "
                          "smaller disk");
}

CNewDisk::CNewDisk(const std::string& name, int64 sizeBytes, const UCreateOptions& options,
                   CPasswords& passwords, TArray<fs::path> inUse, bool sync)
    : m_name(name),
      m_force(options.force),
      m_sync(sync),
      m_target(resolveTarget(name, options.force)),
      m_files(new CNativeFileSystem(sync)),
      m_names({m_target.filename()}),
      m_inUse(std::move(inUse)) {
    if (!options.parent.empty())
        for (const fs::path& file : listFilesOfChain(options.parent))
            m_inUse.push_back(file);
    verifyNames();
    m_lock = about(name, [&] {
        const CURI target = uriFromPath(m_target);
        return P<CLockFile>(new CLockFile(m_files.get(), target.getParent() << (target.getName() + ".lock"),
                                          CLockFile::LockType_Exclusive, false, true));
    });
    const String& password = passwords.getForCreating(name);
    if (!options.parent.empty())
        openParent(options.parent, passwords.getForOpening(options.parent), password);
    m_folder = std::make_unique<CStagedFolder>(folder());
    create(sizeBytes, options, password);
}

CNewDisk::~CNewDisk() {
    m_disk = nullptr;
}

/// `password` is the parent's, `ownPassword` that of the new disk.
void CNewDisk::openParent(const std::string& name, const String& password, const String& ownPassword) {
    m_parent = openDisk(name, IIOStream::Access_Read, password, m_files.get());
    m_parentAside = about(name, [&] {
        return CVMDKDisk::openRenamed(confine(m_files.get(), name).get(), m_parent->getMainFileURI(),
                                      IIOStream::Access_Read, password, -1, nullptr, nullptr);
    });
    if (!needsPassword(name))
        return;
    if (ownPassword.isEmpty())
        tellWarning(m_name + ": The parent is encrypted and this disk is not: what it stores can be read by "
                             "everybody");
    else if (!(ownPassword == password))
        throw CFailure(m_name, "A child needs the password of its parents");
}

/// The place where the disk is made is nothing that the user knows.
void CNewDisk::fail(const CError& error) const {
    const fs::path staged = m_folder->getPath() / m_target.filename();
    throw CFailure(m_name, withoutFolder(explainError(error, nameFromPath(staged)), staged.parent_path()));
}

void CNewDisk::create(int64 sizeBytes, const UCreateOptions& options, const String& password) {
    const auto [compressed, limit] = chooseKindOfNewDisk(options, m_parent.get());
    if (compressed && limit != singleFile)
        tellWarning(m_name +
                    ": Other readers see only the first file of a disk that is compressed and split");
    try {
        createFiles(sizeBytes, options, password, compressed, limit);
    } catch (const CError& error) {
        throwUsageErrorOfNewDisk(error, options);
        fail(error);
    }
    for (const auto& [key, value] : m_disk->getExtentMap()) {
        const fs::path extent = pathFromURI(value.uri).filename();
        if (extent != m_names.front())
            m_names.push_back(extent);
    }
    verifyNames();
}

void CNewDisk::createFiles(int64 sizeBytes, const UCreateOptions& options, const String& password,
                           bool compressed, int64 limit) {
    const CURI uri = uriFromPath(m_folder->getPath() / m_target.filename());
    const P<CInterruptibleFiles> files(new CInterruptibleFiles(m_files.get())); // there may be thousands
    if (!m_parent) {
        m_disk = CVMDKDisk::create(files.get(), uri, sizeBytes, password, compressed, options.level, limit,
                                   "", noContentID, options.onDemand);
        files->stop();
        return;
    }
    const String reference = makeParentReference(m_name, options.parent);
    const unsigned int parentContentID = m_parent->getDescriptor()->getContentID();
    m_disk = CVMDKDisk::create(files.get(), uri, m_parent->getSizeBytes(), password, compressed,
                               options.level, limit, reference, parentContentID, options.onDemand);
    files->stop();
    // Seen from here the reference leads nowhere, so the parent is handed in.
    m_disk = nullptr;
    m_disk = new CVMDKDisk(m_files.get(), uri, IIOStream::Access_ReadWrite, password, options.level, nullptr,
                           m_parent.get());
    // Programs are in use that write a new content ID and lose each line between it and the parent's, so the
    // reference is moved behind both.
    m_disk->removeParent();
    m_disk->changeParent(reference, parentContentID);
}

bool CNewDisk::isInUse(const fs::path& path) const {
    return std::any_of(m_inUse.begin(), m_inUse.end(),
                       [&](const fs::path& file) { return isSameFile(path, file); });
}

/// Throws: CFailure when the disk would take a name that it must not have.
void CNewDisk::verifyNames() const {
    for (const fs::path& name : m_names) {
        const fs::path path = folder() / name;
        if (!somethingExists(path))
            continue;
        if (!m_force)
            throw CFailure(nameFromPath(path), "The file exists already (--force replaces it)");
        if (isInUse(path))
            throw CFailure(nameFromPath(path), "It is in use here, as the source or a parent, and cannot "
                                               "be replaced");
    }
}

void CNewDisk::commit() {
    run([&] { m_disk->flushChanges(); });
    m_disk = nullptr;
    std::vector<fs::path> made;
    std::vector<fs::path> obsolete = m_force ? listOldExtents(m_target) : std::vector<fs::path>();
    for (const fs::path& name : m_names)
        (somethingExists(m_folder->getPath() / name) ? made : obsolete).push_back(name);
    std::erase_if(obsolete, [&](const fs::path& name) {
        return !somethingExists(folder() / name) || isInUse(folder() / name) ||
               std::find(made.begin(), made.end(), name) != made.end();
    });
    m_folder->commit(made, m_target.filename(), obsolete, m_force, m_sync);
}

} // namespace tessel::cli
