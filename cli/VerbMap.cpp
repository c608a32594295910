#include "CInterruptibleFiles.h"
#include "CStagedFile.h"
#include "DiskMap.h"
#include "DiskPicture.h"
#include "Disks.h"
#include "Errors.h"
#include "Names.h"
#include "Output.h"
#include "Sizes.h"
#include "Targets.h"
#include "Verbs.h"
#include "lum/CNativeFileSystem.h"
#include "tessel/CVMDKSpaceInfo.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdlib>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

struct UMap {
    std::string disk;
    bool json = false;
    bool blocks = false;
    std::string svg;
    bool force = false;
    bool quiet = false;
    CPasswords passwords;
};

/// A disk that is mapped, and the names of what it consists of.
struct UMappedDisk {
    std::string name;
    P<CVMDKDisk> disk;
    TArray<P<CVMDKDisk>> parents;
    fs::path folder;
};

/// The file as the user may call it: seen from where the disk was named, if it stands there.
std::string showFile(const UMappedDisk& mapped, const CURI& uri) {
    const fs::path path = pathFromURI(uri);
    if (path.parent_path() != mapped.folder)
        return nameFromPath(path);
    return nameFromPath(pathFromName(mapped.name).replace_filename(path.filename()));
}

Json toJson(const UVMDKStoredRun& run) {
    const bool isStored = run.layer != UVMDKGrainRun::nowhere;
    Json json;
    json["startBytes"] = run.position;
    json["sizeBytes"] = run.sizeBytes;
    json["state"] = !isStored ? "zero" : run.layer == 0 ? "data" : "parent";
    json["layer"] = isStored ? Json(run.layer) : Json();
    json["file"] = isStored ? Json(nameFromPath(pathFromURI(run.file))) : Json();
    json["sector"] = run.filePosition >= 0 ? Json(run.filePosition / vmdkSectorSize) : Json();
    json["storedBytes"] = run.storedBytes;
    json["compressed"] = run.isCompressed;
    json["encrypted"] = run.isEncrypted;
    return json;
}

void tellAsJson(const UMappedDisk& mapped, CProgress& progress) {
    Json layers = Json::array({nameFromPath(pathFromURI(mapped.disk->getMainFileURI()))});
    for (const auto& parent : mapped.parents)
        layers.push_back(nameFromPath(pathFromURI(parent->getMainFileURI())));
    COutputText out(progress);
    out.add("{\n  \"file\": " + formatJsonLine(mapped.name) +
            ",\n  \"sizeBytes\": " + std::to_string(mapped.disk->getSizeBytes()) +
            ",\n  \"layers\": " + formatJsonLine(layers) + ",\n  \"runs\": [");
    const char* separator = "\n    ";
    forEachStoredRun(*mapped.disk, progress, [&](const UVMDKStoredRun& run) {
        out.add(separator + formatJsonLine(toJson(run)));
        separator = ",\n    ";
    });
    out.add("\n  ]\n}\n");
    out.finish();
}

std::string tellPlace(const UMappedDisk& mapped, const UVMDKStoredRun& run) {
    if (run.layer == UVMDKGrainRun::nowhere)
        return "";
    const std::string cipher = run.isEncrypted ? ", encrypted" : "";
    const std::string file = toHarmlessLine(showFile(mapped, run.file));
    if (run.isCompressed)
        return file + ", compressed to " + std::to_string(run.storedBytes) + cipher;
    return file + ", sector " + std::to_string(run.filePosition / vmdkSectorSize) + cipher;
}

std::string tellState(const UVMDKStoredRun& run) {
    return run.layer == UVMDKGrainRun::nowhere ? "zero"
           : run.layer == 0                    ? "data"
                                               : "parent " + std::to_string(run.layer);
}

void tellAsText(const UMappedDisk& mapped, CProgress& progress) {
    const std::size_t width = std::max<std::size_t>(std::to_string(mapped.disk->getSizeBytes()).size(),
                                                    std::string("offset").size());
    const auto right = [&](const std::string& text) { return std::string(width - text.size(), ' ') + text; };
    const auto left = [](std::string text) {
        text.resize(std::max<std::size_t>(text.size(), 10), ' ');
        return text;
    };
    COutputText out(progress);
    out.add(right("offset") + "  " + right("length") + "  " + left("state") + "place\n");
    forEachStoredRun(*mapped.disk, progress, [&](const UVMDKStoredRun& run) {
        const std::string place = tellPlace(mapped, run);
        const std::string state = tellState(run);
        out.add(right(std::to_string(run.position)) + "  " + right(std::to_string(run.sizeBytes)) + "  " +
                (place.empty() ? state : left(state) + place) + "\n");
    });
    out.finish();
}

UDiskPicture makePicture(const UMappedDisk& mapped, int mostCells, bool quiet) {
    CVMDKDisk& disk = *mapped.disk;
    CProgress progress(disk.getSizeBytes(), quiet);
    const P<CVMDKSpaceInfo> space = disk.gatherSpaceInfo();
    UDiskPicture picture{nameFromPath(pathFromName(mapped.name).filename()),
                         disk.getDescriptor()->getCreateType().toUTF8Lossy(),
                         disk.getCompressed(),
                         disk.getEncrypted(),
                         disk.getGrainSizeBytes(),
                         {},
                         space->getPayloadSizeInFile(),
                         space->getHeaderSize(),
                         space->getDeadSpaceSize(),
                         CDiskGrid(disk, mostCells, progress)};
    for (const auto& parent : mapped.parents)
        picture.parents.push_back(nameFromPath(pathFromURI(parent->getMainFileURI()).filename()));
    return picture;
}

/// Throws: CFailure when the picture would take the place of a file of the disk.
fs::path findPlaceForPicture(const UMap& verb) {
    fs::path target = resolveTarget(verb.svg, verb.force);
    if (somethingExists(target))
        for (const fs::path& file : listFilesOfChain(verb.disk))
            if (isSameFile(file, target))
                throw CFailure(verb.svg, "It is in use here, as part of the disk, and cannot be replaced");
    return target;
}

void drawPicture(const UMap& verb, const UMappedDisk& mapped, const fs::path& target) {
    const std::string text =
        about(verb.disk, [&] { return drawSVG(makePicture(mapped, mostSVGCells, verb.quiet)); });
    CStagedFile file(target, verb.force);
    constexpr std::size_t piece = 1 << 20;
    for (std::size_t done = 0; done < text.size(); done += piece)
        file.getFile().write(static_cast<int64>(done), text.data() + done,
                             static_cast<int>(std::min(piece, text.size() - done)));
    file.commit(false);
}

/// https://no-color.org
bool mayColour() {
    const char* const refused = std::getenv("NO_COLOR"); // NOLINT(concurrency-mt-unsafe): nobody changes it
    return isOutputColoured() && (!refused || *refused == '\0');
}

void map(UMap& verb) {
    if (verb.json && verb.blocks)
        throw CUsageError("--json and --blocks do not go together");
    if (verb.force && verb.svg.empty())
        throw CUsageError("--force: only a picture is written to a file (--svg)");
    const fs::path target = verb.svg.empty() ? fs::path() : findPlaceForPicture(verb);
    const P<IFileSystem> native(new CNativeFileSystem(false));
    const P<IFileSystem> files(new CInterruptibleFiles(native.get()));
    const String& password = verb.passwords.getForOpening(verb.disk);
    UMappedDisk mapped{verb.disk, openDisk(verb.disk, IIOStream::Access_Read, password, files.get()), {}, {}};
    mapped.parents = openParents(verb.disk, *mapped.disk, password, files.get());
    mapped.folder = pathFromURI(mapped.disk->getMainFileURI().toNormalized()).parent_path();
    if (!verb.svg.empty())
        drawPicture(verb, mapped, target);
    about(verb.disk, [&] {
        if (verb.blocks) {
            const int width = isOutputTerminal() ? getErrorWidth() : 80;
            writeText(drawBlocks(makePicture(mapped, mostBlockCells(width), verb.quiet), width, mayColour()));
            return;
        }
        CProgress progress(mapped.disk->getSizeBytes(), verb.quiet);
        if (verb.json)
            tellAsJson(mapped, progress);
        else if (verb.svg.empty())
            tellAsText(mapped, progress);
    });
}

} // namespace

void addMapVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<UMap>();
    CLI::App* const app = program.add_subcommand("map", "Tell or draw what of a disk is stored where");
    app->footer("  tessel map disk.vmdk\n"
                "  tessel map disk.vmdk --json\n"
                "  tessel map disk.vmdk --blocks\n"
                "  tessel map child.vmdk --svg child.svg");
    app->add_option("DISK", verb->disk, "Main file of the disk")->required();
    app->add_flag("--json", verb->json, "Answer for programs");
    app->add_flag("--blocks", verb->blocks, "Draw the disk as a grid on the terminal");
    app->add_option("--svg", verb->svg, "Draw the disk as a grid into a new SVG image")->type_name("FILE");
    app->add_flag("--force", verb->force, "Replace an existing image");
    app->add_flag("--quiet", verb->quiet, "Show no progress");
    verb->passwords.addOpenOption(*app);
    app->callback([verb, &chosen] { chosen = [verb] { map(*verb); }; });
}

} // namespace tessel::cli
