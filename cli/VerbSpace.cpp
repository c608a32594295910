#include "CInterruptibleFiles.h"
#include "CProgress.h"
#include "Disks.h"
#include "Errors.h"
#include "Output.h"
#include "Sizes.h"
#include "Verbs.h"
#include "lum/CNativeFileSystem.h"
#include "tessel/CVMDKSpaceInfo.h"

#include <CLI/CLI.hpp>

#include <optional>

namespace tessel::cli {

namespace {

struct USpace {
    std::string disk;
    bool json = false;
    bool quiet = false;
    CPasswords passwords;
};

void tellSpace(USpace& verb) {
    const P<IFileSystem> native(new CNativeFileSystem(false));
    P<CVMDKDisk> disk;
    std::optional<CProgress> progress;
    int64 openedFiles = 0;
    // The library tells no more of how far it is than which files it opens: each extent's, one after the
    // other.
    const P<CInterruptibleFiles> files(new CInterruptibleFiles(native.get(), [&] {
        if (progress)
            progress->advanceTo(disk->getSizeBytes() / disk->getExtentMap().size() * openedFiles++);
    }));
    disk = openDisk(verb.disk, IIOStream::Access_Read, verb.passwords.getForOpening(verb.disk), files.get());
    progress.emplace(disk->getSizeBytes(), verb.quiet);
    const P<CVMDKSpaceInfo> space = about(verb.disk, [&] { return disk->gatherSpaceInfo(); });
    progress.reset();
    const int64 total = space->getHeaderSize() + space->getPayloadSizeInFile() + space->getDeadSpaceSize();
    if (verb.json) {
        Json json;
        json["file"] = verb.disk;
        json["sizeBytes"] = disk->getSizeBytes();
        json["payloadBytes"] = space->getPayloadSize();
        json["payloadInFileBytes"] = space->getPayloadSizeInFile();
        json["headerBytes"] = space->getHeaderSize();
        json["deadSpaceBytes"] = space->getDeadSpaceSize();
        json["totalInFileBytes"] = total;
        writeJson(json);
        return;
    }
    CTable table;
    table.add("disk", verb.disk);
    table.add("size", formatSizeExactly(disk->getSizeBytes()));
    table.add("written", formatSizeExactly(space->getPayloadSize()));
    table.add("in files", formatSizeExactly(total));
    table.add("  grains", formatSizeExactly(space->getPayloadSizeInFile()));
    table.add("  metadata", formatSizeExactly(space->getHeaderSize()));
    table.add("  dead space", formatSizeExactly(space->getDeadSpaceSize()));
    table.write();
}

} // namespace

void addSpaceVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<USpace>();
    CLI::App* const app = program.add_subcommand("space", "Tell how a disk's files are used");
    app->footer("  tessel space disk.vmdk\n"
                "  tessel space disk.vmdk --json");
    app->add_option("DISK", verb->disk, "Main file of the disk")->required();
    app->add_flag("--json", verb->json, "Answer for programs");
    app->add_flag("--quiet", verb->quiet, "Show no progress");
    verb->passwords.addOpenOption(*app);
    app->callback([verb, &chosen] { chosen = [verb] { tellSpace(*verb); }; });
}

} // namespace tessel::cli
