#include "CDiskWriter.h"
#include "CProgress.h"
#include "DiskFacts.h"
#include "Errors.h"
#include "Sizes.h"
#include "Verbs.h"
#include "lum/CNativeFileSystem.h"
#include "platform.h"

#include <CLI/CLI.hpp>

namespace tessel::cli {

namespace {

struct UWrite {
    std::string disk;
    std::string offset;
    int level = -1;
    bool json = false;
    bool quiet = false;
    CPasswords passwords;
};

void write(UWrite& verb) {
    const int64 offset = parseSize(verb.offset, "OFFSET");
    const P<IFileSystem> files(new CNativeFileSystem);
    const P<CVMDKDisk> disk = openDisk(verb.disk, IIOStream::Access_ReadWrite,
                                       verb.passwords.getForOpening(verb.disk), files.get(), verb.level);
    const int64 inputSize = getInputSize();
    verifyRange(verb.disk, disk->getSizeBytes(), offset, std::max<int64>(inputSize, 0));

    if (!disk->getEncrypted() && needsPassword(verb.disk))
        tellWarning(verb.disk +
                    ": A parent is encrypted and this disk is not: what it stores, the rest of each "
                    "grain included, can be read by everybody");

    constexpr int64 most = 1 << 20;
    TBuffer<unsigned char> buffer(most);
    CDiskWriter writer(disk.get(), false);
    int64 position = offset;
    bool isEnd = false;
    // What is typed stands on the terminal itself.
    CProgress progress(inputSize, verb.quiet || isInputTerminal());
    while (!isEnd) {
        // Pieces end at multiples of their size, so that a grain is written once.
        const int64 piece = most - position % most;
        const int got = readInput(buffer.getData(), static_cast<int>(piece));
        isEnd = got < piece;
        const int64 fits = std::min<int64>(got, disk->getSizeBytes() - position);
        about(verb.disk, [&] { writer.write(position, buffer.getData(), fits); });
        position += fits;
        progress.advanceTo(position - offset);
        if (fits < got) {
            about(verb.disk, [&] { writer.flush(); });
            throw CFailure(verb.disk, "Standard input holds more than the disk has room for; its first " +
                                          std::to_string(position - offset) + " bytes were written");
        }
    }
    about(verb.disk, [&] { writer.flush(); });
    progress.hide();
    if (verb.json) {
        Json json;
        json["startBytes"] = offset;
        json["sizeBytes"] = position - offset;
        json["disk"] = describeDisk(verb.disk);
        writeJsonOfWork(json);
    }
}

} // namespace

void addWriteVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<UWrite>();
    CLI::App* const app = program.add_subcommand("write", "Write standard input into a disk");
    app->footer("  tessel write disk.vmdk 0 <boot-sector\n"
                "  zcat part.gz | tessel write disk.vmdk 1M");
    app->add_option("DISK", verb->disk, "Main file of the disk")->required();
    app->add_option("OFFSET", verb->offset, "First byte; may have K, M, G, T behind it")->required();
    app->add_option("--level", verb->level, "Compression level, 0 to 9, where the disk is compressed")
        ->type_name("N")
        ->check(CLI::Range(0, 9));
    app->add_flag("--json", verb->json, "Answer for programs");
    app->add_flag("--quiet", verb->quiet, "Show no progress");
    verb->passwords.addOpenOption(*app);
    app->callback([verb, &chosen] { chosen = [verb] { write(*verb); }; });
}

} // namespace tessel::cli
