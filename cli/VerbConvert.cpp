#include "CNewDisk.h"
#include "Copy.h"
#include "Errors.h"
#include "Jobs.h"
#include "Names.h"
#include "Sinks.h"
#include "Sizes.h"
#include "Sources.h"
#include "Targets.h"
#include "Verbs.h"
#include "lum/CNativeFileSystem.h"

#include <array>
#include <fstream>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

enum class Kind { unclear, raw, vmdk };

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
    int jobs = getDefaultJobs();
};

bool isStandardStream(const std::string& name) {
    return name == "-";
}

Kind kindOfOption(const std::string& option) {
    return option.empty() ? Kind::unclear : option == "raw" ? Kind::raw : Kind::vmdk;
}

Kind kindOfName(const std::string& name) {
    if (isStandardStream(name))
        return Kind::raw;
    if (hasExtension(name, ".vmdk"))
        return Kind::vmdk;
    for (const char* extension : {".raw", ".img", ".iso", ".dd", ".bin"})
        if (hasExtension(name, extension))
            return Kind::raw;
    return Kind::unclear;
}

/// What the first bytes of a regular file tell.
Kind kindOfContent(const std::string& name) {
    if (!fs::is_regular_file(pathFromName(name)))
        return Kind::raw;
    std::array<char, 32> bytes{};
    std::ifstream file(pathFromName(name), std::ios::binary);
    file.read(bytes.data(), bytes.size());
    return looksLikeVMDK(reinterpret_cast<const unsigned char*>(bytes.data()),
                         static_cast<int>(file.gcount()))
               ? Kind::vmdk
               : Kind::raw;
}

Kind findSourceKind(const UConvert& verb) {
    const Kind asked = kindOfOption(verb.from);
    if (isStandardStream(verb.source)) {
        if (asked == Kind::vmdk)
            throw CUsageError("--from vmdk: a VMDK disk cannot be read from standard input");
        return Kind::raw;
    }
    verifyIsFile(verb.source);
    if (asked != Kind::unclear)
        return asked;
    const Kind name = kindOfName(verb.source);
    const Kind content = kindOfContent(verb.source);
    // A guest may write into a raw image what makes it look like a disk that names other files.
    if (name == Kind::raw && content == Kind::vmdk)
        throw CUsageError(verb.source +
                          ": the name is that of a raw image, but the content looks like a VMDK; "
                          "say which it is (--from)");
    return name == Kind::unclear ? content : name;
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
    if (kind == Kind::raw)
        return std::make_unique<CRawSource>(CRawFile::openForReading(pathFromName(verb.source)));
    const P<CVMDKDisk> disk =
        openDisk(verb.source, IIOStream::Access_Read, verb.passwords.getForOpening(verb.source), files);
    return std::make_unique<CDiskSource>(verb.source, disk.get());
}

void verifyInputIsUsedUp(const UConvert& verb, ISource& source) {
    unsigned char byte = 0;
    if (isStandardStream(verb.source) && source.getSizeBytes() < 0 && source.read(0, &byte, 1) > 0)
        throw CFailure("standard input",
                       "It holds more bytes than were announced, or than the new disk has room for");
}

void convertToRaw(UConvert& verb, ISource& source, int64 size) {
    if (verb.options.asksForVMDK())
        throw CUsageError("Options of VMDK disks do not go with raw data (--to vmdk)");
    CProgress progress(size < 0 ? source.getSizeBytes() : size, verb.quiet);
    if (isStandardStream(verb.target)) {
        if (isOutputTerminal())
            throw CUsageError("The bytes of a disk are not for a terminal; redirect standard output");
        COutputSink sink;
        copy(source, sink, size, verb.jobs, progress);
        verifyInputIsUsedUp(verb, source);
        return;
    }
    const fs::path target = resolveTarget(verb.target, verb.options.force);
    if (somethingExists(target) && !isStandardStream(verb.source))
        for (const fs::path& file : listFilesOfChain(verb.source))
            if (isSameFile(file, target))
                throw CFailure(verb.target, "It is in use here, as the source, and cannot be replaced");
    CStagedFile file(target, verb.options.force);
    CRawSink sink(&file);
    copy(source, sink, size, verb.jobs, progress);
    verifyInputIsUsedUp(verb, source);
    file.commit(verb.sync);
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
    CNewDisk target(verb.target, wanted, verb.options, verb.passwords, isInput ? std::string() : verb.source,
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
    // Of a pipe no more is taken than was announced, though the disk may have a little more room.
    const int64 limit = sourceSize < 0 && wanted >= 0 ? wanted : diskSize;
    const int64 copied = copy(source, sink, limit, verb.jobs, progress);
    verifyInputIsUsedUp(verb, source);
    target.commit();
    if (sourceSize < 0 && wanted >= 0 && copied < wanted)
        tellWarning("standard input: It ended after " + std::to_string(copied) + " bytes; the rest of the " +
                    std::to_string(wanted) + " are zeros");
    const int64 asked = wanted >= 0 ? wanted : copied;
    if (!verb.quiet && diskSize != asked)
        tellNote(verb.target + ": The size was rounded up from " + std::to_string(asked) + " to " +
                 std::to_string(diskSize) + " bytes; --size " + std::to_string(asked) +
                 " cuts it off when converting back");
}

void convert(UConvert& verb) {
    const int64 size = verb.size.empty() ? -1 : parseSize(verb.size, "--size");
    const Kind sourceKind = findSourceKind(verb);
    const Kind targetKind = findTargetKind(verb, sourceKind);
    const P<IFileSystem> files(new CNativeFileSystem(false));
    const std::unique_ptr<ISource> source = openSource(verb, sourceKind, files.get());
    if (targetKind == Kind::raw)
        convertToRaw(verb, *source, size);
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
    const auto addKind = [&](const char* option, std::string& kind, const char* help) {
        app->add_option(option, kind, help)->type_name("raw|vmdk")->check(CLI::IsMember({"raw", "vmdk"}));
    };
    addKind("--from", verb->from, "Kind of the source, when its name and content do not tell");
    addKind("--to", verb->to, "Kind of the new file, when its name does not tell");
    app->add_option("--size", verb->size, "Size of the result: cuts the source, or lets zeros follow")
        ->type_name("N");
    verb->options.addTo(*app);
    verb->passwords.addCreateOptions(*app);
    addJobsOption(*app, verb->jobs);
    app->add_flag("--sync", verb->sync, "Wait until the medium has everything");
    app->add_flag("--quiet", verb->quiet, "Show no progress and no notes");
    app->callback([verb, &chosen] { chosen = [verb] { convert(*verb); }; });
}

} // namespace tessel::cli
