#include "CCompactCopy.h"
#include "Confinement.h"
#include "DiskFacts.h"
#include "Errors.h"
#include "Names.h"
#include "Sizes.h"
#include "Verbs.h"
#include "lum/CBase.h"
#include "lum/CNativeFileSystem.h"
#include "platform.h"
#include "tessel/CVMDKDiskChecker.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace tessel::cli {

namespace {

struct UCompact {
    std::string disk;
    bool quiet = false;
    bool json = false;
    CPasswords passwords;
};

/// Shows how far the check is; what it finds is counted elsewhere.
class CCheckProgress : public CBase, public IVMDKCheckReport {
public:
    CCheckProgress(int64 sizeBytes, bool quiet) : m_progress(sizeBytes, quiet) {}

    void addFinding(const UVMDKCheckFinding& /*finding*/) override { throwIfInterrupted(); }
    void onProgress(int64 position) override {
        throwIfInterrupted();
        if (position >= 0)
            m_progress.advanceTo(position);
    }

private:
    CProgress m_progress;
};

/// Whether each compressed grain can be had with its record, which tells whose it is.
bool hasWholeGrainsOnly(const CVMDKDisk& disk) {
    TArray<P<CVMDKExtentInfo>> extents;
    disk.getDescriptor()->getExtentEntries(extents);
    const int64 grainSectors = disk.getGrainSizeBytes() / vmdkSectorSize;
    return std::all_of(extents.begin(), extents.end(), [&](const auto& extent) {
        return static_cast<int64>(extent->getSizeSectors()) % grainSectors == 0;
    });
}

/// The old files are all that a damaged disk can be repaired from. Throws: CFailure when it is, or when that
/// cannot be told. Requires: the disk is open for writing.
void verifyIsWhole(const std::string& name, const CVMDKDisk& disk, const String& password, IFileSystem* files,
                   bool quiet) {
    const P<IFileSystem> confined = confine(files, name);
    const P<CVMDKDiskChecker> checker(new CVMDKDiskChecker(confined.get(), disk.getMainFileURI()));
    checker->setTakesRenamed(true);
    checker->setLocks(false);
    {
        const P<CCheckProgress> report(new CCheckProgress(disk.getSizeBytes(), quiet));
        about(name,
              [&] { checker->check(password, !disk.getCompressed() || hasWholeGrainsOnly(disk), *report); });
    }
    if (checker->getDamageCount() > 0)
        throw CFailure(name, "It is damaged, and stays as it is (tessel check " + name + " tells how)");
    if (checker->getUncheckedCount() > 0)
        throw CFailure(name, "Not all of it can be checked, and it stays as it is (tessel check " + name +
                                 " tells why)");
}

void tellAsJson(const UCompact& verb, int64 before, int64 after) {
    Json json;
    json["replaced"] = after < before;
    json["oldExtentBytes"] = before;
    json["newExtentBytes"] = after;
    json["disk"] = describeDisk(verb.disk);
    writeJsonOfWork(json);
}

void compact(UCompact& verb) {
    verifyMayBeDisk(verb.disk);
    if (isLink(pathFromName(verb.disk)))
        throw CFailure(verb.disk, "It is a link; name the file that it leads to");
    const P<IFileSystem> files(new CNativeFileSystem);
    const String& password = verb.passwords.getForOpening(verb.disk);
    // Open for writing until all is done, so that nobody else uses it.
    P<CVMDKDisk> disk = openDisk(verb.disk, IIOStream::Access_ReadWrite, password, files.get());
    verifyIsWhole(verb.disk, *disk, password, files.get(), verb.quiet);
    P<CVMDKDisk> parent;
    if (!disk->getParentDiskMainURI().isEmpty())
        parent = openParents(verb.disk, *disk, password, files.get()).front();
    CCompactCopy copy(verb.disk, disk.get(), parent.get(), files.get(), password);
    {
        CProgress progress(disk->getSizeBytes(), verb.quiet);
        copy.copyGrains(progress);
    }
    const int64 before = copy.getOldSizeBytes();
    const int64 after = copy.getNewSizeBytes();
    throwIfInterrupted();
    if (after < before)
        copy.replaceFiles();
    // What was replaced while it was open may stay in the folder of the copy until it is closed.
    disk = nullptr;
    if (verb.json)
        tellAsJson(verb, before, std::min(before, after));
    else if (!verb.quiet)
        tellNote(verb.disk + (after < before ? ": It had " + formatSizeExactly(before) + ", and has " +
                                                   formatSizeExactly(after)
                                             : ": It is compact already, and stays as it is"));
}

} // namespace

void addCompactVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<UCompact>();
    CLI::App* const app =
        program.add_subcommand("compact", "Rewrite a disk without dead space and without grains of zeros");
    app->footer("  tessel compact disk.vmdk\n"
                "  tessel compact child.vmdk --allow ../bases");
    app->add_option("DISK", verb->disk, "Main file of the disk")->required();
    app->add_flag("--json", verb->json, "Answer for programs");
    app->add_flag("--quiet", verb->quiet, "Show no progress and no note of the sizes");
    verb->passwords.addOpenOption(*app);
    app->callback([verb, &chosen] { chosen = [verb] { compact(*verb); }; });
}

} // namespace tessel::cli
