#include "CCompactCopy.h"
#include "Disks.h"
#include "Errors.h"
#include "Names.h"
#include "Sizes.h"
#include "Verbs.h"
#include "lum/CNativeFileSystem.h"

namespace tessel::cli {

namespace {

struct UCompact {
    std::string disk;
    bool quiet = false;
    CPasswords passwords;
};

void compact(UCompact& verb) {
    verifyMayBeDisk(verb.disk);
    if (std::filesystem::is_symlink(pathFromName(verb.disk)))
        throw CFailure(verb.disk, "It is a link; name the file that it leads to");
    const P<IFileSystem> files(new CNativeFileSystem);
    const String& password = verb.passwords.getForOpening(verb.disk);
    // Open for writing until all is done, so that nobody else uses it.
    const P<CVMDKDisk> disk = openDisk(verb.disk, IIOStream::Access_ReadWrite, password, files.get());
    P<CVMDKDisk> parent;
    if (!disk->getParentDiskMainURI().isEmpty())
        parent = openParents(*disk, password, files.get()).front();
    CCompactCopy copy(verb.disk, disk.get(), parent.get(), files.get(), password);
    {
        CProgress progress(disk->getSizeBytes(), verb.quiet);
        copy.copyGrains(progress);
    }
    const int64 before = copy.getOldSizeBytes();
    const int64 after = copy.getNewSizeBytes();
    if (after < before)
        copy.replaceFiles();
    if (!verb.quiet)
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
    app->add_flag("--quiet", verb->quiet, "Show no progress and no note of the sizes");
    verb->passwords.addOpenOption(*app);
    app->callback([verb, &chosen] { chosen = [verb] { compact(*verb); }; });
}

} // namespace tessel::cli
