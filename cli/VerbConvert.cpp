#include "CNewDisk.h"
#include "Copy.h"
#include "DiskFacts.h"
#include "Errors.h"
#include "FileKinds.h"
#include "Jobs.h"
#include "Names.h"
#include "Sinks.h"
#include "Sizes.h"
#include "Sources.h"
#include "Targets.h"
#include "Verbs.h"
#include "lum/CNativeFileSystem.h"

#include <CLI/CLI.hpp>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

struct UConvert {
    std::string source;
    std::string target;
    std::string from;
    std::string to;
    std::string size;
    UCreateOptions options;
    CPasswords passwords;
    bool sync = false;
    bool quiet = false;
    bool json = false;
    int jobs = getDefaultJobs();
};

bool isStandardStream(const std::string& name) {
    return name == "-";
}

Kind findSourceKind(const UConvert& verb) {
    if (!isStandardStream(verb.source))
        return findKindOfFile(verb.source, verb.from, "--from");
    if (kindOfOption(verb.from) == Kind::vmdk)
        throw CUsageError("--from vmdk: a VMDK disk cannot be read from standard input");
    return Kind::raw;
}

Kind findTargetKind(const UConvert& verb, Kind source) {
    const Kind asked = kindOfOption(verb.to);
    if (isStandardStream(verb.target)) {
        if (asked == Kind::vmdk)
            throw CUsageError("--to vmdk: a VMDK disk cannot be written to standard output");
        return Kind::raw;
    }
    if (asked != Kind::unclear)
        return asked;
    if (verb.options.asksForVMDK())
        return Kind::vmdk;
    const Kind name = kindOfName(verb.target);
    if (name != Kind::unclear)
        return name;
    if (source == Kind::vmdk)
        return Kind::raw;
    throw CUsageError(verb.target + ": the name does not tell the kind of the new file; say it (--to)");
}

std::unique_ptr<ISource> openSource(UConvert& verb, Kind kind, IFileSystem* files) {
    if (isStandardStream(verb.source))
        return std::make_unique<CInputSource>();
    return openFileSource(verb.source, kind, verb.passwords, files);
}

void verifyInputIsUsedUp(const UConvert& verb, ISource& source) {
    unsigned char byte = 0;
    if (isStandardStream(verb.source) && source.getSizeBytes() < 0 && source.read(0, &byte, 1) > 0)
        throw CFailure("standard input",
                       "It holds more bytes than were announced, or than the new disk has room for");
}

/// The files that must not be replaced.
TArray<fs::path> listSourceFiles(const UConvert& verb, Kind kind) {
    if (isStandardStream(verb.source))
        return {};
    // What a guest wrote into a raw image names no files.
    return kind == Kind::raw ? TArray<fs::path>{pathFromName(verb.source)} : listFilesOfChain(verb.source);
}

void tellAsJson(const UConvert& verb, Kind kind, int64 sizeBytes, int64 sourceBytes) {
    Json json;
    json["source"] = verb.source;
    json["sourceBytes"] = sourceBytes;
    json["target"] = verb.target;
    json["kind"] = "raw";
    json["sizeBytes"] = sizeBytes;
    json["allocatedBytes"] = nullptr;
    json["disk"] = nullptr;
    if (kind == Kind::vmdk) {
        json["disk"] = describeDisk(verb.target);
        json["kind"] = json["disk"]["kind"];
        json["allocatedBytes"] = json["disk"]["allocatedBytes"];
    } else {
        json["allocatedBytes"] = getAllocatedSize(pathFromName(verb.target));
    }
    writeJsonOfWork(json);
}

void convertToRaw(UConvert& verb, ISource& source, Kind sourceKind, int64 size) {
    if (verb.options.asksForVMDK())
        throw CUsageError("Options of VMDK disks do not go with raw data (--to vmdk)");
    CProgress progress(size < 0 ? source.getSizeBytes() : size, verb.quiet);
    if (isStandardStream(verb.target)) {
        if (verb.sync)
            throw CUsageError("--sync: standard output is not this program's to wait for");
        if (verb.json)
            throw CUsageError("--json: standard output has the bytes of the disk already");
        if (isOutputTerminal())
            throw CUsageError("The bytes of a disk are not for a terminal; redirect standard output");
        COutputSink sink;
        copy(source, sink, size, verb.jobs, progress);
        verifyInputIsUsedUp(verb, source);
        return;
    }
    const fs::path target = resolveTarget(verb.target, verb.options.force);
    if (somethingExists(target))
        for (const fs::path& file : listSourceFiles(verb, sourceKind))
            if (isSameFile(file, target))
                throw CFailure(verb.target, "It is in use here, as the source, and cannot be replaced");
    CStagedFile file(target, verb.options.force);
    CRawSink sink(&file);
    const int64 copied = copy(source, sink, size, verb.jobs, progress);
    progress.hide();
    verifyInputIsUsedUp(verb, source);
    throwIfInterrupted();
    const int64 fileSize = file.getFile().getLength();
    file.commit(verb.sync);
    if (verb.json)
        tellAsJson(verb, Kind::raw, fileSize, copied);
}

void convertToVMDK(UConvert& verb, ISource& source, Kind sourceKind, int64 size) {
    const bool isInput = isStandardStream(verb.source);
    if (!verb.options.parent.empty() && size >= 0)
        throw CUsageError("--size: a child has the size of its parent");
    const int64 sourceSize = source.getSizeBytes();
    const int64 wanted = size >= 0 ? size : sourceSize;
    if (wanted < 0 && verb.options.parent.empty())
        throw CUsageError("--size is needed to make a disk from a pipe");
    const bool wasEncrypted = sourceKind == Kind::vmdk && needsPassword(verb.source);
    CNewDisk target(verb.target, wanted, verb.options, verb.passwords, listSourceFiles(verb, sourceKind),
                    verb.sync);
    const int64 diskSize = target.getDisk().getSizeBytes();
    if (!verb.options.parent.empty() && sourceSize > diskSize)
        throw CFailure(isInput ? "standard input" : verb.source, "It is larger (" +
                                                                     std::to_string(sourceSize) +
                                                                     " bytes) than the parent, whose size "
                                                                     "the child has (" +
                                                                     std::to_string(diskSize) + ")");
    if (wasEncrypted && !target.getDisk().getEncrypted())
        tellWarning(verb.target + ": The source is encrypted and this disk is not");

    CProgress progress(diskSize, verb.quiet);
    CDiskSink sink(&target, verb.options.level);
    // No more is taken than was asked for, though the disk may have a little more room.
    // In a child, zeros up to its end hide what the parent holds.
    const int64 limit = verb.options.parent.empty() ? wanted : diskSize;
    const int64 copied = copy(source, sink, limit, verb.jobs, progress);
    progress.hide();
    verifyInputIsUsedUp(verb, source);
    throwIfInterrupted();
    target.commit();
    if (sourceSize < 0 && wanted >= 0 && copied < wanted)
        tellWarning("standard input: It ended after " + std::to_string(copied) + " bytes; the rest of the " +
                    std::to_string(wanted) + " are zeros");
    const int64 asked = wanted >= 0 ? wanted : copied;
    if (!verb.quiet && diskSize != asked)
        tellNote(verb.target + ": The size was rounded up from " + std::to_string(asked) + " to " +
                 std::to_string(diskSize) + " bytes; --size " + std::to_string(asked) +
                 " cuts it off when converting back");
    if (verb.json)
        tellAsJson(verb, Kind::vmdk, diskSize, copied);
}

void convert(UConvert& verb) {
    const int64 size = verb.size.empty() ? -1 : parseSize(verb.size, "--size");
    const Kind sourceKind = findSourceKind(verb);
    const Kind targetKind = findTargetKind(verb, sourceKind);
    const P<IFileSystem> files(new CNativeFileSystem(false));
    const std::unique_ptr<ISource> source = openSource(verb, sourceKind, files.get());
    if (targetKind == Kind::raw)
        convertToRaw(verb, *source, sourceKind, size);
    else
        convertToVMDK(verb, *source, sourceKind, size);
}

} // namespace

void addConvertVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<UConvert>();
    CLI::App* const app = program.add_subcommand("convert", "Copy a disk or raw image into a new one");
    app->footer("  tessel convert disk.vmdk disk.raw\n"
                "  tessel convert disk.raw disk.vmdk --compressed\n"
                "  tessel convert /dev/sdb backup.vmdk --split\n"
                "  tessel convert disk.vmdk - | gzip >disk.gz\n"
                "  zcat disk.gz | tessel convert - disk.vmdk --size 20G\n"
                "  tessel convert today.raw today.vmdk --parent yesterday.vmdk");
    app->add_option("SRC", verb->source, "Disk, raw image or block device; - is raw data from standard input")
        ->required();
    app->add_option("DST", verb->target, "New disk or raw image; - is raw data to standard output")
        ->required();
    addKindOption(*app, "--from", verb->from, "Kind of the source, when its name and content do not tell");
    addKindOption(*app, "--to", verb->to, "Kind of the new file, when its name does not tell");
    app->add_option("--size", verb->size, "Size of the result: cuts the source, or lets zeros follow")
        ->type_name("N");
    verb->options.addTo(*app);
    verb->passwords.addCreateOptions(*app);
    addJobsOption(*app, verb->jobs);
    app->add_flag("--sync", verb->sync, "Wait until the medium has everything");
    app->add_flag("--json", verb->json, "Answer for programs");
    app->add_flag("--quiet", verb->quiet, "Show no progress and no notes");
    app->callback([verb, &chosen] { chosen = [verb] { convert(*verb); }; });
}

} // namespace tessel::cli
