#include "CMeasureSink.h"
#include "CSizeSample.h"
#include "Copy.h"
#include "Errors.h"
#include "FileKinds.h"
#include "Jobs.h"
#include "Names.h"
#include "Output.h"
#include "Sinks.h"
#include "Sizes.h"
#include "Verbs.h"
#include "lum/CNativeFileSystem.h"
#include "lum/Numbers.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace tessel::cli {

namespace {

struct UMeasure {
    std::string source;
    std::string target;
    std::string from;
    std::string to;
    std::string size;
    UCreateOptions options;
    bool encrypt = false;
    CPasswords passwords;
    bool json = false;
    bool quiet = false;
    int jobs = getDefaultJobs();
};

struct UMeasured {
    std::string kind;
    int64 sizeBytes = 0;
    int64 requiredBytes = 0;
    int64 fullyAllocatedBytes = 0;
    int64 files = 1;
    bool isEstimate = false;
    int64 marginBytes = 0;
};

/// Counts what of a raw image is no hole.
class CRawMeasureSink : public ISink {
public:
    void write(CPiece& piece) override {
        for (int64 at = 0; at < piece.getSizeBytes(); at += rawHoleUnit) {
            const int64 count = std::min<int64>(rawHoleUnit, piece.getSizeBytes() - at);
            if (!isZeroMemory(piece.getBytes() + at, static_cast<std::size_t>(count)))
                m_bytes += count;
        }
    }
    void writeZeros(int64, int64) override {}
    void finish(int64 sizeBytes) override { m_size = sizeBytes; }

    int64 getDataBytes() const noexcept { return m_bytes; }
    int64 getSizeBytes() const noexcept { return m_size; }

private:
    int64 m_bytes = 0;
    int64 m_size = 0;
};

Kind findTargetKind(const UMeasure& verb) {
    const Kind asked = kindOfOption(verb.to);
    if (asked != Kind::unclear)
        return asked;
    if (verb.options.asksForVMDK() || verb.encrypt || verb.target.empty())
        return Kind::vmdk;
    const Kind named = kindOfName(verb.target);
    if (named == Kind::unclear)
        throw CUsageError(verb.target + ": the name does not tell the kind of the new file; say it (--to)");
    return named;
}

UMeasured measureRaw(UMeasure& verb, ISource& source, int64 size) {
    if (verb.options.asksForVMDK() || verb.encrypt)
        throw CUsageError("Options of VMDK disks do not go with raw data (--to vmdk)");
    CProgress progress(size < 0 ? source.getSizeBytes() : size, verb.quiet);
    CRawMeasureSink sink;
    copy(source, sink, size, verb.jobs, progress);
    return {"raw", sink.getSizeBytes(), sink.getDataBytes(), sink.getSizeBytes()};
}

/// The largest size of a grain in the new disk's files.
int64 getWorstGrainSize(const UNewDiskPlan& plan) {
    if (!plan.isCompressed)
        return plan.grainSizeBytes;
    const P<CVMDKDataPreparer> preparer(
        new CVMDKDataPreparer(plan.grainSizeBytes / vmdkSectorSize, true, -1));
    const int64 record = preparer->getWorstCaseGrainSizeSectors() * vmdkSectorSize;
    return plan.isEncrypted ? getEncryptedSlotBytes(record) : record;
}

UMeasured measureDisk(UMeasure& verb, ISource& source, int64 size) {
    if (!verb.options.parent.empty() && size >= 0)
        throw CUsageError("--size: a child has the size of its parent");
    const P<IFileSystem> files(new CNativeFileSystem(false));
    const std::string& parentName = verb.options.parent;
    const P<CVMDKDisk> parent = parentName.empty()
                                    ? P<CVMDKDisk>()
                                    : openDisk(parentName, IIOStream::Access_Read,
                                               verb.passwords.getForOpening(parentName), files.get());
    const int64 wanted = size >= 0 ? size : source.getSizeBytes();
    // The longer a name is, the more room the descriptor has for it.
    const std::string name = !verb.target.empty()
                                 ? verb.target
                                 : nameFromPath(pathFromName(verb.source).replace_extension(".vmdk"));
    const UNewDiskPlan plan = planNewDisk(name, wanted, verb.options, verb.encrypt, parent.get());
    if (parent && source.getSizeBytes() > plan.sizeBytes)
        throw CFailure(verb.source, "It is larger (" + std::to_string(source.getSizeBytes()) +
                                        " bytes) than the parent, whose size the child has (" +
                                        std::to_string(plan.sizeBytes) + ")");
    CGrainChooser chooser(parent.get(), plan.grainSizeBytes);
    const int64 limit = parent ? plan.sizeBytes : wanted;
    UMeasured measured{plan.kind, plan.sizeBytes};
    std::vector<int64> stored;
    if (plan.isCompressed) {
        CSizeSample sample(&plan, &chooser, &source, limit, verb.options.level);
        CProgress progress(plan.sizeBytes, verb.quiet);
        sample.take(progress);
        stored = sample.getStoredBytes();
        measured.isEstimate = true;
        measured.marginBytes = sample.getMarginBytes();
    } else {
        CProgress progress(plan.sizeBytes, verb.quiet);
        CMeasureSink sink(&plan, &chooser);
        copy(source, sink, limit, verb.jobs, progress);
        stored = sink.getStoredBytes();
    }
    measured.requiredBytes = plan.addUp(stored);
    measured.files = plan.countFiles(stored);
    const int64 worst = getWorstGrainSize(plan);
    std::vector<int64> full;
    for (const auto& extent : plan.extents)
        full.push_back(extent.sizeBytes / plan.grainSizeBytes * worst);
    measured.fullyAllocatedBytes = plan.addUp(full);
    return measured;
}

void tell(const UMeasure& verb, const UMeasured& measured) {
    if (verb.json) {
        Json json;
        json["source"] = verb.source;
        json["kind"] = measured.kind;
        json["sizeBytes"] = measured.sizeBytes;
        json["requiredBytes"] = measured.requiredBytes;
        json["fullyAllocatedBytes"] = measured.fullyAllocatedBytes;
        json["files"] = measured.files;
        json["estimate"] = measured.isEstimate;
        json["marginBytes"] = measured.marginBytes;
        writeJson(json);
        return;
    }
    CTable table;
    table.add("source", verb.source);
    table.add("new disk", measured.kind + ", " + formatSizeExactly(measured.sizeBytes));
    table.add("files", std::to_string(measured.files));
    std::string required = formatSizeExactly(measured.requiredBytes);
    if (measured.isEstimate)
        required = "about " + required +
                   (measured.marginBytes > 0
                        ? ", give or take " + formatSize(measured.marginBytes) + "; estimated from a sample"
                        : "; every grain was looked at");
    table.add("required", required);
    table.add("when full",
              (measured.isEstimate ? "at most " : "") + formatSizeExactly(measured.fullyAllocatedBytes));
    table.write();
}

void measure(UMeasure& verb) {
    if (verb.source == "-")
        throw CUsageError("A pipe cannot be measured, since it can be read only once");
    const int64 size = verb.size.empty() ? -1 : parseSize(verb.size, "--size");
    const Kind sourceKind = findKindOfFile(verb.source, verb.from, "--from");
    const Kind targetKind = findTargetKind(verb);
    const P<IFileSystem> files(new CNativeFileSystem(false));
    const std::unique_ptr<ISource> source =
        openFileSource(verb.source, sourceKind, verb.passwords, files.get());
    tell(verb, targetKind == Kind::raw ? measureRaw(verb, *source, size) : measureDisk(verb, *source, size));
}

} // namespace

void addMeasureVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<UMeasure>();
    CLI::App* const app =
        program.add_subcommand("measure", "Tell how much room the result of convert will need");
    app->footer("  tessel measure disk.raw\n"
                "  tessel measure disk.raw --compressed --json\n"
                "  tessel measure disk.vmdk /backup/disk.vmdk --split\n"
                "  tessel measure disk.vmdk disk.raw");
    app->add_option("SRC", verb->source, "Disk, raw image or block device")->required();
    app->add_option("DST", verb->target, "What the new disk or raw image would be called; nothing is made");
    addKindOption(*app, "--from", verb->from, "Kind of the source, when its name and content do not tell");
    addKindOption(*app, "--to", verb->to, "Kind of the new file, when no name tells; else vmdk");
    app->add_option("--size", verb->size, "Size of the result: cuts the source, or lets zeros follow")
        ->type_name("N");
    verb->options.addKindTo(*app);
    app->add_flag("--encrypt", verb->encrypt,
                  "The new disk would be encrypted; no password is needed for that");
    app->add_flag("--json", verb->json, "Answer for programs");
    verb->passwords.addOpenOption(*app);
    addJobsOption(*app, verb->jobs);
    app->add_flag("--quiet", verb->quiet, "Show no progress");
    app->callback([verb, &chosen] { chosen = [verb] { measure(*verb); }; });
}

} // namespace tessel::cli
