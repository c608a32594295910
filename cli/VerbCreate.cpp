#include "CNewDisk.h"
#include "DiskFacts.h"
#include "Errors.h"
#include "Sizes.h"
#include "Verbs.h"
#include "platform.h"

#include <CLI/CLI.hpp>

namespace tessel::cli {

namespace {

struct UCreate {
    std::string disk;
    std::string size;
    UCreateOptions options;
    CPasswords passwords;
    bool sync = false;
    bool json = false;
};

void create(UCreate& verb) {
    if (verb.size.empty() && verb.options.parent.empty())
        throw CUsageError("SIZE is missing");
    if (!verb.size.empty() && !verb.options.parent.empty())
        throw CUsageError("SIZE: a child has the size of its parent");
    const int64 size = verb.size.empty() ? 0 : parseSize(verb.size, "SIZE");
    if (!verb.size.empty() && size == 0)
        throw CUsageError("SIZE: a disk has at least one byte");
    CNewDisk disk(verb.disk, size, verb.options, verb.passwords, {}, verb.sync);
    const int64 actual = disk.getDisk().getSizeBytes();
    const int64 asked = disk.getParent() ? disk.getParent()->getSizeBytes() : size;
    const int64 parentGrainSize =
        disk.getParent() ? disk.getParent()->getGrainSizeBytes() : disk.getDisk().getGrainSizeBytes();
    if (parentGrainSize != disk.getDisk().getGrainSizeBytes())
        tellNote(verb.disk + ": Its grains have " + std::to_string(disk.getDisk().getGrainSizeBytes()) +
                 " bytes, as all disks made here; the parent's have " + std::to_string(parentGrainSize));
    throwIfInterrupted();
    disk.commit();
    if (actual != asked)
        tellNote(verb.disk + ": The size was rounded up from " + std::to_string(asked) + " to " +
                 std::to_string(actual) + " bytes");
    if (verb.json) {
        Json json;
        json["requestedBytes"] = asked;
        json["disk"] = describeDisk(verb.disk);
        writeJsonOfWork(json);
    }
}

} // namespace

void addCreateVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<UCreate>();
    CLI::App* const app = program.add_subcommand("create", "Make an empty disk");
    app->footer("  tessel create disk.vmdk 20G\n"
                "  tessel create backup.vmdk 1T --compressed --level 6\n"
                "  tessel create big.vmdk 4T --split=2G --on-demand\n"
                "  tessel create child.vmdk --parent base.vmdk\n"
                "  tessel create secret.vmdk 20G --password-file key.txt\n"
                "  tessel create disk.vmdk 20G --json");
    app->add_option("DISK", verb->disk, "Main file of the new disk")->required();
    app->add_option("SIZE", verb->size,
                    "Bytes, or with K, M, G, T; a disk has whole grains of 64 KiB, and at least 8 MiB");
    verb->options.addTo(*app);
    verb->passwords.addCreateOptions(*app);
    app->add_flag("--sync", verb->sync, "Wait until the medium has the disk");
    app->add_flag("--json", verb->json, "Answer for programs");
    app->callback([verb, &chosen] { chosen = [verb] { create(*verb); }; });
}

} // namespace tessel::cli
