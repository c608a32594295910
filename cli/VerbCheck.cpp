#include "CProgress.h"
#include "Confinement.h"
#include "DiskFiles.h"
#include "Disks.h"
#include "Errors.h"
#include "Names.h"
#include "Output.h"
#include "Verbs.h"
#include "lum/CBase.h"
#include "lum/CNativeFileSystem.h"
#include "platform.h"
#include "tessel/CVMDKDiskChecker.h"
#include "tessel/VMDKMarker.h"

#include <CLI/CLI.hpp>

#include <array>
#include <fstream>

namespace tessel::cli {

namespace {

struct UCheck {
    std::string disk;
    bool json = false;
    bool quick = false;
    bool quiet = false;
    CPasswords passwords;
};

using Finding = UVMDKCheckFinding;

const char* nameOf(Finding::Severity severity) {
    switch (severity) {
    case Finding::Severity_Damage:
        return "damage";
    case Finding::Severity_Unchecked:
        return "unchecked";
    case Finding::Severity_Information:
        break;
    }
    return "note";
}

std::string pathOf(const CURI& uri) {
    return showPaths(uri.toString(true));
}

/// Writes findings as they come: there may be more of them than fit into memory.
class CFindingWriter : public CBase, public IVMDKCheckReport {
public:
    /// `sizeBytes`: of the disk; -1 when nobody knows.
    CFindingWriter(const UCheck& verb, int64 sizeBytes)
        : m_disk(verb.disk), m_json(verb.json), m_quick(verb.quick), m_progress(sizeBytes, verb.quiet) {}

    void addFinding(const Finding& finding) override {
        throwIfInterrupted();
        m_progress.hide();
        if (m_json)
            addJson(finding);
        else
            writeText(makeLine(finding));
    }

    void onProgress(int64 position) override {
        throwIfInterrupted();
        if (position >= 0)
            m_progress.advanceTo(position);
    }

    void finish(const CVMDKDiskChecker& checker) {
        m_progress.hide();
        if (m_json)
            finishJson(checker);
        else
            writeText(makeSummary(checker));
    }

private:
    static std::string makeLine(const Finding& finding) {
        std::string line = std::string(nameOf(finding.severity)) + ": " + pathOf(finding.uri) + ": ";
        const auto add = [&](const char* name, int64 value, const char* separator) {
            if (value >= 0)
                line += name + std::to_string(value) + separator;
        };
        add("table ", finding.tableIndex, finding.grainIndex >= 0 ? ", " : ": ");
        add("grain ", finding.grainIndex, ": ");
        return toHarmlessLine(line + showPaths(finding.message)) + "\n";
    }

    std::string makeSummary(const CVMDKDiskChecker& checker) const {
        const auto count = [](int64 number, const char* singular, const char* plural) {
            return std::to_string(number) + " " + (number == 1 ? singular : plural);
        };
        std::string line = m_disk + ": ";
        if (checker.getDamageCount() > 0)
            line += count(checker.getDamageCount(), "damage", "damages") + " found";
        else
            line += checker.getUncheckedCount() > 0 ? "no damage found in what could be checked"
                                                    : "no damage found";
        line += m_quick ? "; metadata of " : "; ";
        line += count(checker.getGrainCount(), "grain", "grains") + " in " +
                count(checker.getExtentCount(), "file", "files") + " checked";
        return toHarmlessLine(line) + "\n";
    }

    void beginJson() {
        if (m_begun)
            return;
        m_begun = true;
        writeText("{\n  \"file\": " + dump(m_disk) + ",\n  \"quick\": " + (m_quick ? "true" : "false") +
                  ",\n  \"findings\": [");
    }

    void addJson(const Finding& finding) {
        const auto orNull = [](int64 value) { return value < 0 ? Json(nullptr) : Json(value); };
        Json json;
        json["severity"] = nameOf(finding.severity);
        json["kind"] = getVMDKCheckKindName(finding.kind);
        json["path"] = pathOf(finding.uri);
        json["extent"] = orNull(finding.extentIndex);
        json["table"] = orNull(finding.tableIndex);
        json["grain"] = orNull(finding.grainIndex);
        json["positionBytes"] = orNull(finding.position);
        json["diskPositionBytes"] = orNull(finding.diskPosition);
        json["repairable"] = finding.isRepairable;
        json["message"] = showPaths(finding.message);
        beginJson();
        writeText((m_hasFindings ? ",\n    " : "\n    ") + dump(json));
        m_hasFindings = true;
    }

    void finishJson(const CVMDKDiskChecker& checker) {
        beginJson();
        writeText(std::string(m_hasFindings ? "\n  " : "") +
                  "],\n  \"damageCount\": " + std::to_string(checker.getDamageCount()) +
                  ",\n  \"uncheckedCount\": " + std::to_string(checker.getUncheckedCount()) +
                  ",\n  \"noteCount\": " + std::to_string(checker.getInformationCount()) +
                  ",\n  \"checkedFiles\": " + std::to_string(checker.getExtentCount()) +
                  ",\n  \"checkedGrains\": " + std::to_string(checker.getGrainCount()) + "\n}\n");
    }

    static std::string dump(const Json& json) {
        return json.dump(-1, ' ', false, Json::error_handler_t::replace);
    }

    std::string m_disk;
    bool m_json;
    bool m_quick;
    CProgress m_progress;
    bool m_begun = false;
    bool m_hasFindings = false;
};

/// Only the contents of compressed grains need a key.
const String& choosePassword(UCheck& verb) {
    if (verb.quick)
        return String::getEmptyString();
    if (!verb.passwords.isGivenForOpening()) {
        try {
            const P<CVMDKDescriptor> descriptor = readDescriptor(verb.disk);
            String type;
            descriptor->tryGetValue("createType", type);
            if (descriptor->getLumEncryptionAlgorithm().isEmpty() || type != "streamOptimized")
                return String::getEmptyString();
        } catch (const CFailure&) { // NOLINT(bugprone-empty-catch): what is wrong with it, the check tells
        }
    }
    return verb.passwords.getForOpening(verb.disk);
}

/// Whether a file ends as a compressed extent does. Its header may be damaged, and is there once more.
bool endsWithTrail(const std::string& name) {
    constexpr std::streamoff trailSize = 3 * vmdkSectorSize;
    std::array<char, vmdkSectorSize> sector{};
    std::ifstream file(pathFromName(name), std::ios::binary);
    return file.seekg(-trailSize, std::ios::end).read(sector.data(), sector.size()) &&
           isVMDKMarker(reinterpret_cast<const unsigned char*>(sector.data()), MarkerFooter, nullptr);
}

/// Bytes of the disk; -1 when that cannot be, which the check tells.
int64 addUpSize(const UMainFile& file) {
    constexpr auto most = static_cast<uint64>(INT64_MAX / vmdkSectorSize);
    uint64 sectors = 0;
    for (const auto& extent : file.getExtents()) {
        const auto count = static_cast<uint64>(extent->getSizeSectors());
        if (count > most - sectors)
            return -1;
        sectors += count;
    }
    return static_cast<int64>(sectors) * vmdkSectorSize;
}

void checkDisk(UCheck& verb) {
    verifyIsFile(verb.disk);
    if (!endsWithTrail(verb.disk))
        verifyMayBeDisk(verb.disk);
    const P<IFileSystem> native(new CNativeFileSystem(false));
    const P<IFileSystem> files = confine(native.get(), verb.disk);
    const P<CVMDKDiskChecker> checker(new CVMDKDiskChecker(files.get(), uriFromName(verb.disk)));
    checker->setTakesRenamed(true);
    int64 size = -1;
    try {
        const UMainFile file = readMainFile(files.get(), uriFromName(verb.disk));
        size = addUpSize(file);
        tellIfRenamed(files.get(), file, verb.disk);
        verifyFilesAreNotRenamed(verb.disk, file);
    } catch (const CFailure& failure) {
        tellNote(failure.what());
    } catch (const CError&) { // NOLINT(bugprone-empty-catch): what is wrong with it, the check tells
    }
    const P<CFindingWriter> writer(new CFindingWriter(verb, size));
    const String& password = choosePassword(verb);
    about(verb.disk, [&] { checker->check(password, verb.quick, *writer); });
    writer->finish(*checker);
    if (checker->getDamageCount() > 0)
        throw CDamageFound();
    if (checker->getUncheckedCount() > 0)
        throw CFailure(verb.disk, "Not all of the disk could be checked");
}

} // namespace

void addCheckVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<UCheck>();
    CLI::App* const app = program.add_subcommand("check", "Look for damage in a disk");
    app->footer("  tessel check disk.vmdk\n"
                "  tessel check disk.vmdk --quick --json");
    app->add_option("DISK", verb->disk, "Main file of the disk")->required();
    app->add_flag("--quick", verb->quick, "Look at the metadata only, not at what the grains hold");
    app->add_flag("--json", verb->json, "Answer for programs");
    app->add_flag("--quiet", verb->quiet, "Show no progress");
    verb->passwords.addOpenOption(*app);
    app->callback([verb, &chosen] { chosen = [verb] { checkDisk(*verb); }; });
}

} // namespace tessel::cli
