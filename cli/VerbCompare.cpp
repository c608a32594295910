#include "Compare.h"
#include "Errors.h"
#include "FileKinds.h"
#include "Output.h"
#include "Sizes.h"
#include "Verbs.h"
#include "lum/CNativeFileSystem.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>

namespace tessel::cli {

namespace {

struct USide {
    std::string file;
    std::string kind;
    CPasswords passwords;
    std::unique_ptr<ISource> source;
};

struct UCompare {
    USide a;
    USide b;
    bool json = false;
    bool first = false;
    bool quiet = false;
};

void openSide(USide& side, const char* kindOption, CPasswords& passwords, IFileSystem* files) {
    const Kind kind = findKindOfFile(side.file, side.kind, kindOption);
    side.source = openFileSource(side.file, kind, passwords, files);
}

/// Tells what was found, as it is found.
class CComparisonWriter {
public:
    CComparisonWriter(const UCompare& verb, CProgress& progress) : m_verb(verb), m_out(progress) {
        if (verb.json)
            m_out.add("{\n  \"a\": " + formatJsonLine(verb.a.file) +
                      ",\n  \"b\": " + formatJsonLine(verb.b.file) +
                      ",\n  \"aSizeBytes\": " + std::to_string(verb.a.source->getSizeBytes()) +
                      ",\n  \"bSizeBytes\": " + std::to_string(verb.b.source->getSizeBytes()) +
                      ",\n  \"ranges\": [");
    }

    void add(const UDifference& range) {
        if (m_verb.json) {
            Json json;
            json["startBytes"] = range.position;
            json["sizeBytes"] = range.sizeBytes;
            m_out.add(m_separator + formatJsonLine(json));
            m_separator = ",\n    ";
        } else {
            m_out.add("differ: " + std::to_string(range.sizeBytes) + " bytes from " +
                      std::to_string(range.position) + " on\n");
        }
    }

    void finish(const UComparison& found) {
        if (m_verb.json)
            finishJson(found);
        else
            m_out.add(summarize(found) + "\n");
        m_out.finish();
    }

private:
    void finishJson(const UComparison& found) {
        m_out.add(std::string(found.rangeCount > 0 ? "\n  ]" : "]") + ",\n  \"same\": " +
                  (found.isSame() ? "true" : "false") + ",\n  \"firstDifferenceBytes\": " +
                  (found.isSame() ? "null" : std::to_string(found.firstDifference)) +
                  ",\n  \"differingBytes\": " + std::to_string(found.differingBytes) + "\n}\n");
    }

    std::string summarize(const UComparison& found) const {
        const std::string both = toHarmlessLine(m_verb.a.file) + " and " + toHarmlessLine(m_verb.b.file);
        if (found.isSame())
            return both + " hold the same";
        const std::string first = "the first different byte is at " + std::to_string(found.firstDifference);
        if (m_verb.first)
            return both + " differ; " + first;
        return both + " differ: " + std::to_string(found.differingBytes) + " bytes in " +
               std::to_string(found.rangeCount) + (found.rangeCount == 1 ? " range; " : " ranges; ") + first;
    }

    const UCompare& m_verb;
    COutputText m_out;
    const char* m_separator = "\n    ";
};

void tellSizes(const UCompare& verb) {
    const int64 a = verb.a.source->getSizeBytes();
    const int64 b = verb.b.source->getSizeBytes();
    if (a == b)
        return;
    const USide& longer = a > b ? verb.a : verb.b;
    const USide& shorter = a > b ? verb.b : verb.a;
    tellNote(longer.file + ": It is longer than " + shorter.file + " (" + std::to_string(std::max(a, b)) +
             " and " + std::to_string(std::min(a, b)) +
             " bytes); where the other has ended, zeros are the same");
}

void compare(UCompare& verb) {
    const P<IFileSystem> files(new CNativeFileSystem(false));
    openSide(verb.a, "--a-kind", verb.a.passwords, files.get());
    // One password may be that of both.
    const bool hasOwnPassword = verb.b.passwords.isGivenForOpening() || !verb.a.passwords.isGivenForOpening();
    openSide(verb.b, "--b-kind", hasOwnPassword ? verb.b.passwords : verb.a.passwords, files.get());
    if (!verb.quiet)
        tellSizes(verb);
    CProgress progress(std::max(verb.a.source->getSizeBytes(), verb.b.source->getSizeBytes()), verb.quiet);
    CComparisonWriter writer(verb, progress);
    const UComparison found =
        compareSources(*verb.a.source, *verb.b.source, progress, [&](const UDifference& range) {
            writer.add(range);
            return !verb.first;
        });
    writer.finish(found);
    if (!found.isSame())
        throw CDifferenceFound();
}

} // namespace

void addCompareVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<UCompare>();
    CLI::App* const app = program.add_subcommand(
        "compare", "Tell whether two disks or raw images hold the same, and where not");
    app->footer("  tessel compare disk.vmdk disk.raw\n"
                "  tessel compare yesterday.vmdk today.vmdk --json\n"
                "  tessel compare disk.vmdk /dev/sdb --first");
    app->add_option("A", verb->a.file, "Disk, raw image or block device")->required();
    app->add_option("B", verb->b.file, "The other one")->required();
    addKindOption(*app, "--a-kind", verb->a.kind, "Kind of A, when its name and content do not tell");
    addKindOption(*app, "--b-kind", verb->b.kind, "Kind of B, when its name and content do not tell");
    app->add_flag("--json", verb->json, "Answer for programs");
    app->add_flag("--first", verb->first, "Stop behind the first range that differs");
    app->add_flag("--quiet", verb->quiet, "Show no progress and no notes");
    verb->a.passwords.addOpenOption(*app);
    verb->b.passwords.addOpenOptionOfOther(*app, "--b-password-file", "B");
    app->callback([verb, &chosen] { chosen = [verb] { compare(*verb); }; });
}

} // namespace tessel::cli
