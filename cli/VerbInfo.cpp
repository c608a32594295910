#include "Confinement.h"
#include "DiskFacts.h"
#include "Errors.h"
#include "Names.h"
#include "Output.h"
#include "Sizes.h"
#include "Verbs.h"
#include "lum/CFileSystemError.h"
#include "lum/CNativeFileSystem.h"

#include <CLI/CLI.hpp>

namespace tessel::cli {

namespace {

struct UInfo {
    std::string disk;
    bool json = false;
    CPasswords passwords;
};

constexpr const char* outsideNote = "  (outside the disk's folder, not looked at; --allow DIR)";

std::string describeExtent(const UExtentFacts& extent, bool isOnDemand) {
    std::string text = extent.file + "  " + extent.type + "  " + formatSize(extent.sizeBytes);
    if (extent.isThere)
        return text + "  (file: " + formatSize(extent.fileSizeBytes) + ")";
    if (extent.isOutside)
        return text + outsideNote;
    return text + (isOnDemand ? "  (no file yet)" : "  (FILE IS MISSING)");
}

void tellAsText(const std::string& name, const UDiskFacts& facts) {
    const auto yesNo = [](bool value) { return std::string(value ? "yes" : "no"); };
    CTable table;
    table.add("disk", name);
    table.add("kind", facts.kind);
    table.add("size", formatSizeExactly(facts.sizeBytes));
    table.add("allocated", formatSizeExactly(facts.allocatedBytes));
    table.add("grain size", facts.grainSizeBytes < 0 ? "unknown" : formatSizeExactly(facts.grainSizeBytes));
    table.add("content ID", toHexString(facts.contentID).toUTF8());
    table.add("compressed", yesNo(facts.isCompressed));
    table.add("encrypted", yesNo(facts.isEncrypted));
    table.add("on demand", yesNo(facts.isOnDemand));
    if (facts.parentContentID == noContentID) {
        table.add("parent", "none");
    } else {
        table.add("parent", facts.parentFile + (facts.isParentOutside ? outsideNote
                                                : facts.isParentThere ? ""
                                                                      : "  (FILE IS MISSING)"));
        table.add("parent's ID", toHexString(facts.parentContentID).toUTF8());
    }
    for (std::size_t i = 0; i < facts.extents.size(); ++i)
        table.add("extent " + std::to_string(i), describeExtent(facts.extents[i], facts.isOnDemand));
    table.write();
}

/// What was told is of use whether the disk can be opened or not; this says whether it can.
void verifyOpens(UInfo& verb, const UDiskFacts& facts, IFileSystem* native, IFileSystem* files) {
    verifyNames(verb.disk, native);
    for (const UExtentFacts& extent : facts.extents)
        if (!extent.isThere && !extent.isOutside && !facts.isOnDemand && extent.sizeBytes > 0)
            throw CFailure(verb.disk, "A file of the disk is missing: " + extent.file);
    verifyParentsAreThere(verb.disk);
    if (facts.isEncrypted && !verb.passwords.isGivenForOpening())
        return;
    const String& password = verb.passwords.isGivenForOpening() ? verb.passwords.getForOpening(verb.disk)
                                                                : String::getEmptyString();
    about(verb.disk, [&] {
        try {
            CVMDKDisk::openRenamed(files, uriFromName(verb.disk), IIOStream::Access_Read, password, -1,
                                   nullptr, nullptr);
        } catch (const CFileSystemError& error) {
            if (error.getProblem() != CFileSystemError::Problem_Locked)
                throw;
            tellNote(verb.disk + ": The disk is in use; what is told here may be changing");
        }
    });
}

void tellInfo(UInfo& verb) {
    verifyMayBeDisk(verb.disk);
    const P<IFileSystem> native(new CNativeFileSystem(false));
    const P<IFileSystem> files = confine(native.get(), verb.disk);
    const UDiskFacts facts = about(verb.disk, [&] { return collectDiskFacts(verb.disk, files.get()); });
    if (verb.json)
        writeJson(toJson(verb.disk, facts));
    else
        tellAsText(verb.disk, facts);
    verifyOpens(verb, facts, native.get(), files.get());
}

} // namespace

void addInfoVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<UInfo>();
    CLI::App* const app = program.add_subcommand("info", "Tell what a disk is and which files it has");
    app->footer("  tessel info disk.vmdk\n"
                "  tessel info disk.vmdk --json");
    app->add_option("DISK", verb->disk, "Main file of the disk")->required();
    app->add_flag("--json", verb->json, "Answer for programs");
    verb->passwords.addOpenOption(*app);
    app->callback([verb, &chosen] { chosen = [verb] { tellInfo(*verb); }; });
}

} // namespace tessel::cli
