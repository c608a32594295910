#include "CStagedFile.h"
#include "Confinement.h"
#include "DiskFacts.h"
#include "Errors.h"
#include "Names.h"
#include "RenamePlan.h"
#include "Targets.h"
#include "Verbs.h"
#include "lum/CLockFile.h"
#include "lum/CNativeFileSystem.h"
#include "platform.h"
#include "tessel/CVMDKDescriptorAccessor.h"
#include "tessel/VMDKFileReference.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <functional>
#include <set>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

struct URename {
    std::string disk;
    std::string newName;
    bool json = false;
};

/// Steps that are taken back, last first, unless they are kept.
class CUndo {
public:
    CUndo() = default;
    CUndo(const CUndo&) = delete;
    CUndo& operator=(const CUndo&) = delete;
    ~CUndo() {
        for (auto step = m_steps.rbegin(); step != m_steps.rend(); ++step) {
            try {
                (*step)();
            } catch (const std::exception& error) {
                tellWarning(error.what());
            }
        }
    }
    void add(std::function<void()> step) { m_steps.push_back(std::move(step)); }
    void keep() noexcept { m_steps.clear(); }

private:
    std::vector<std::function<void()>> m_steps;
};

/// Gives a disk its new name so that at every moment it opens by the old name or by the new one: each file
/// has both names until the descriptor names the new ones, and that is one step. Where the file system gives
/// no file two names, the disk opens by neither while its files move, and the same command again finishes it.
class CRenamer {
public:
    explicit CRenamer(const URenamePlan& plan) : m_plan(plan) {}

    void run() {
        CUndo undo;
        if (m_plan.between)
            storeEmbedded(m_plan.oldPath, *m_plan.between, undo);
        if (tryLinkAll(undo)) {
            throwIfInterrupted();
            if (m_plan.main.isEmbedded)
                storeNames(m_plan.newPath, undo);
            else
                putNewMain(undo);
        } else {
            throwIfInterrupted();
            moveWithoutLinks(undo);
        }
        syncFolders();
        undo.keep();
        removeOldNames();
        if (m_plan.between) {
            CUndo none;
            storeEmbedded(m_plan.newPath, *m_plan.descriptor, none);
            none.keep();
        }
    }

private:
    void syncFolders() const {
        for (const fs::path& folder : {folderOf(m_plan.newPath), folderOf(m_plan.oldPath)})
            syncFolder(folder);
    }

    /// False when the file system does not do that, or not for these files.
    static bool tryLink(const fs::path& from, const fs::path& to, CUndo& undo) {
        std::error_code error;
        fs::create_hard_link(from, to, error);
        if (!error) {
            undo.add([to] { fs::remove(to); });
            return true;
        }
        if (error == std::errc::cross_device_link)
            throw CFailure(nameFromPath(to),
                           "This is another file system; tessel convert makes a copy there");
        if (error == std::errc::file_exists || error == std::errc::no_space_on_device ||
            error == std::errc::read_only_file_system || error == std::errc::permission_denied)
            throw CFailure(nameFromPath(to), "Cannot give the file this name: " + describeSystemError(error));
        return false;
    }

    bool tryLinkAll(CUndo& undo) const {
        CUndo links;
        const auto link = [&](const fs::path& from, const fs::path& to) {
            throwIfInterrupted();
            return from == to || tryLink(from, to, links);
        };
        for (const auto& move : m_plan.moves)
            if (!link(move.from, move.to))
                return false;
        if (m_plan.main.isEmbedded && !m_plan.isNewMainThere && !link(m_plan.oldPath, m_plan.newPath))
            return false;
        syncFolder(folderOf(m_plan.newPath));
        for (const auto& move : m_plan.moves)
            if (move.from != move.to)
                undo.add([to = move.to] { fs::remove(to); });
        if (m_plan.main.isEmbedded && !m_plan.isNewMainThere && !m_plan.staysInPlace())
            undo.add([to = m_plan.newPath] { fs::remove(to); });
        links.keep();
        return true;
    }

    /// Ended at any step, another try finds each file: by a name that a main file has for it, or by the one
    /// that goes with the old main file's.
    void moveWithoutLinks(CUndo& undo) const {
        if (m_plan.main.isEmbedded) {
            moveExtents(&URenamePlan::UMove::from, &URenamePlan::UMove::interim, undo);
            storeNames(m_plan.oldPath, undo);
            moveExtents(&URenamePlan::UMove::interim, &URenamePlan::UMove::to, undo);
            if (!m_plan.staysInPlace() && !m_plan.isNewMainThere)
                move(m_plan.oldPath, m_plan.newPath, undo);
        } else if (m_plan.staysInPlace()) {
            moveExtents(&URenamePlan::UMove::from, &URenamePlan::UMove::to, undo);
            putNewMain(undo);
        } else {
            putNewMain(undo);
            moveExtents(&URenamePlan::UMove::from, &URenamePlan::UMove::to, undo);
        }
    }

    void moveExtents(fs::path URenamePlan::UMove::*from, fs::path URenamePlan::UMove::*to,
                     CUndo& undo) const {
        for (const auto& each : m_plan.moves)
            if (each.from != each.to && each.*from != each.*to)
                move(each.*from, each.*to, undo);
        syncFolders();
    }

    static void move(const fs::path& from, const fs::path& to, CUndo& undo) {
        moveFile(from, to, false);
        undo.add([from, to] { moveFile(to, from, false); });
    }

    /// The new names, with the parent's reference that leads there from both folders.
    void storeNames(const fs::path& path, CUndo& undo) const {
        if (!m_plan.between) {
            storeEmbedded(path, *m_plan.descriptor, undo);
            return;
        }
        CVMDKDescriptor names(*m_plan.descriptor);
        names.setParentFileNameHint(m_plan.between->getParentFileNameHint());
        storeEmbedded(path, names, undo);
    }

    void storeEmbedded(const fs::path& path, const CVMDKDescriptor& descriptor, CUndo& undo) const {
        about(nameFromPath(path), [&] {
            IFileSystem* const files = (path == m_plan.newPath ? m_plan.newFiles : m_plan.oldFiles).get();
            const P<IIOStream> stream =
                openExistingVMDKFileStream(files, uriFromPath(path), IIOStream::Access_ReadWrite);
            const P<CVMDKDescriptorAccessor> accessor(
                new CVMDKDescriptorAccessor(stream.get(), IIOStream::Access_ReadWrite));
            const P<CVMDKDescriptor> current = accessor->getDescriptor();
            if (current->toString() == descriptor.toString())
                return;
            const P<CVMDKDescriptor> old(new CVMDKDescriptor(*current));
            undo.add([this, path, old] {
                CUndo none;
                storeEmbedded(path, *old, none);
                none.keep();
            });
            *current = descriptor;
            accessor->storeDescriptor(true);
            stream->close();
        });
    }

    void putNewMain(CUndo& undo) const {
        if (m_plan.isNewMainThere)
            return;
        const P<CVMDKDescriptor> descriptor(new CVMDKDescriptor(*m_plan.descriptor));
        if (m_plan.staysInPlace() && descriptor->toString() == m_plan.main.descriptor->toString())
            return;
        descriptor->setEncodingUTF8();
        std::string text =
            about(nameFromPath(m_plan.newPath), [&] { return descriptor->toString().toUTF8(); });
        // Room for what is written later stays what it was.
        text.resize(std::max<std::size_t>(text.size(), fs::file_size(m_plan.oldPath)), '\0');
        if (m_plan.staysInPlace())
            undo.add([this, old = readOldMain()] { putText(old); });
        putText(text);
        if (!m_plan.staysInPlace())
            undo.add([path = m_plan.newPath] { fs::remove(path); });
    }

    std::string readOldMain() const {
        const CRawFile file = CRawFile::openForReading(m_plan.oldPath);
        std::string text(static_cast<std::size_t>(file.getLength()), '\0');
        file.read(0, text.data(), static_cast<int>(text.size()));
        return text;
    }

    void putText(const std::string& text) const {
        CStagedFile staged(m_plan.newPath, m_plan.staysInPlace());
        staged.getFile().write(0, text.data(), static_cast<int>(text.size()));
        staged.getFile().copyAccessFrom(m_plan.oldPath);
        staged.commit(true);
    }

    void removeOldNames() const {
        // The main file first, so that the old name never is that of half a disk.
        if (!m_plan.staysInPlace())
            removeName(m_plan.oldPath, m_plan.newPath,
                       m_plan.main.isEmbedded ? areNamesOfOneFile : areNamesOfTwoFiles);
        for (const auto& move : m_plan.moves) {
            if (move.from != move.to)
                removeName(move.from, move.to, areNamesOfOneFile);
            for (const fs::path& name : move.obsolete)
                removeName(name, move.to, areNamesOfOneFile);
        }
        syncFolder(folderOf(m_plan.oldPath));
    }

    /// The old name goes only when `areSafe(name, kept)` says that what it names has the new one as well.
    static void removeName(const fs::path& name, const fs::path& kept,
                           bool (*areSafe)(const fs::path&, const fs::path&)) {
        if (!somethingExists(name))
            return;
        if (!areSafe(name, kept))
            throw CFailure(nameFromPath(name), "The old name stays, since it is not sure that the new one, " +
                                                   nameFromPath(kept) + ", is the same file's");
        std::error_code error;
        fs::remove(name, error);
        if (error)
            throw CFailure(nameFromPath(name),
                           "The disk has its new name, but the old one cannot be removed: " +
                               describeSystemError(error));
    }

    const URenamePlan& m_plan;
};

/// Throws: CFailure when the text of the descriptor would not fit.
void verifyRoom(const std::string& name, const URenamePlan& plan) {
    if (!plan.main.isEmbedded)
        return;
    about(name, [&] {
        const P<IIOStream> stream =
            openVMDKFileStream(plan.oldFiles.get(), plan.main.uri, IIOStream::Access_Read);
        const P<CVMDKDescriptorAccessor> accessor(
            new CVMDKDescriptorAccessor(stream.get(), IIOStream::Access_Read));
        TArray<CVMDKDescriptor> texts = {*plan.descriptor};
        if (plan.between) {
            texts.push_back(*plan.between);
            texts.push_back(*plan.descriptor);
            texts.back().setParentFileNameHint(plan.between->getParentFileNameHint());
        }
        for (CVMDKDescriptor& text : texts) {
            text.setEncodingUTF8();
            const auto size = static_cast<int64>(text.toString().toUTF8().size());
            if (size > accessor->getDescriptorAreaSize())
                throw CFailure(name, "The new names have no room in its descriptor (" +
                                         std::to_string(accessor->getDescriptorAreaSize()) + " bytes, " +
                                         std::to_string(size) + " needed)");
        }
    });
}

void tellChild(const std::string& child, const std::string& newName) {
    tellNote(child + ": Its parent has another name now (tessel rebase " + child + " " + newName + ")");
}

/// Whether this was the disk's name, by the folder that the user named or the one that it is.
bool isOldName(const CURI& uri, const URenamePlan& plan) {
    return uri == plan.main.uri || uri == uriFromPath(plan.oldPath).toNormalized();
}

/// The children of the disk in these folders are told of, since their parent is no more where they look.
/// Returns their names.
std::vector<std::string> tellChildren(const URenamePlan& plan, const std::string& newName) {
    std::vector<std::string> children;
    for (const fs::path& folder : std::set<fs::path>{folderOf(plan.oldPath), folderOf(plan.newPath)}) {
        const P<IFileSystem>& files = folder == folderOf(plan.newPath) ? plan.newFiles : plan.oldFiles;
        std::error_code ignored;
        for (const auto& entry : fs::directory_iterator(folder, ignored)) {
            const std::string name = nameFromPath(entry.path());
            if (!entry.is_regular_file(ignored) || !hasExtension(name, ".vmdk"))
                continue;
            try {
                const UMainFile child = readMainFile(files.get(), uriFromPath(entry.path()));
                CURI parent;
                if (child.tryGetParent(parent) && isOldName(parent, plan)) {
                    tellChild(name, newName);
                    children.push_back(name);
                }
            } catch (const CError&) {   // NOLINT(bugprone-empty-catch): no disk, or none that can be read
            } catch (const CFailure&) { // NOLINT(bugprone-empty-catch): the same
            }
        }
    }
    return children;
}

void tellAsJson(const URename& verb, const URenamePlan& plan, const std::vector<std::string>& children) {
    Json json;
    json["oldFile"] = verb.disk;
    json["moves"] = Json::array();
    const auto add = [&](const fs::path& from, const fs::path& to) {
        if (from != to)
            json["moves"].push_back({{"from", nameFromPath(from)}, {"to", nameFromPath(to)}});
    };
    add(plan.oldPath, plan.newPath);
    for (const auto& move : plan.moves)
        add(move.from, move.to);
    json["children"] = children;
    json["disk"] = describeDisk(verb.newName);
    writeJsonOfWork(json);
}

P<CLockFile> lockDisk(IFileSystem* files, const std::string& name) {
    const P<IFileSystem> confined = confine(files, name);
    return about(name, [&] {
        const CURI uri = uriFromName(name).toNormalized();
        return P<CLockFile>(new CLockFile(confined.get(), uri.getParent() << (uri.getName() + ".lock"),
                                          CLockFile::LockType_Exclusive, false, true));
    });
}

void renameDisk(const URename& verb) {
    verifyMayBeDisk(verb.disk);
    const P<IFileSystem> files(new CNativeFileSystem(true));
    // What cannot be is told before a lock is taken.
    const bool isSame = makeRenamePlan(files.get(), verb.disk, verb.newName).staysInPlace();
    const P<CLockFile> oldLock = lockDisk(files.get(), verb.disk);
    const P<CLockFile> newLock = isSame ? nullptr : lockDisk(files.get(), verb.newName);
    const URenamePlan plan = makeRenamePlan(files.get(), verb.disk, verb.newName);
    verifyRoom(verb.disk, plan);
    CRenamer(plan).run();
    const std::vector<std::string> children =
        isSame ? std::vector<std::string>() : tellChildren(plan, verb.newName);
    if (verb.json)
        tellAsJson(verb, plan, children);
}

} // namespace

void addRenameVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<URename>();
    CLI::App* const app =
        program.add_subcommand("rename", "Give a disk another name or folder, with all its files");
    app->footer("  tessel rename disk.vmdk server.vmdk\n"
                "  tessel rename disk.vmdk ../archive/disk.vmdk\n"
                "  tessel rename moved.vmdk moved.vmdk");
    app->add_option("DISK", verb->disk, "Main file of the disk")->required();
    app->add_option("NEW_NAME", verb->newName,
                    "Its main file's new name; the same as DISK puts right a disk that was renamed by hand")
        ->required();
    app->add_flag("--json", verb->json, "Answer for programs");
    addAllowOption(*app);
    app->callback([verb, &chosen] { chosen = [verb] { renameDisk(*verb); }; });
}

} // namespace tessel::cli
