#include "CProgress.h"
#include "Disks.h"
#include "Errors.h"
#include "Sizes.h"
#include "Verbs.h"
#include "lum/CNativeFileSystem.h"
#include "platform.h"

#include <CLI/CLI.hpp>

namespace tessel::cli {

namespace {

struct URead {
    std::string disk;
    std::string offset;
    std::string length;
    bool quiet = false;
    CPasswords passwords;
};

void read(URead& verb) {
    const int64 offset = parseSize(verb.offset, "OFFSET");
    const int64 length = parseSize(verb.length, "LENGTH");
    const P<IFileSystem> files(new CNativeFileSystem(false));
    const P<CVMDKDisk> disk =
        openDisk(verb.disk, IIOStream::Access_Read, verb.passwords.getForOpening(verb.disk), files.get());
    verifyRange(verb.disk, disk->getSizeBytes(), offset, length);
    if (isOutputTerminal())
        throw CUsageError("The bytes of a disk are not for a terminal; redirect standard output");

    constexpr int64 most = 1 << 20;
    TBuffer<unsigned char> buffer(std::min(length, most));
    CProgress progress(length, verb.quiet);
    for (int64 done = 0; done < length; progress.advanceTo(done)) {
        throwIfInterrupted();
        const int64 piece = std::min(length - done, most);
        about(verb.disk, [&] {
            disk->seek(offset + done);
            disk->read(buffer.getData(), static_cast<int>(piece));
        });
        writeOutput(buffer.getData(), piece);
        done += piece;
    }
}

} // namespace

void addReadVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<URead>();
    CLI::App* const app = program.add_subcommand("read", "Write bytes of a disk to standard output");
    app->footer("  tessel read disk.vmdk 0 512 >boot-sector\n"
                "  tessel read disk.vmdk 1M 64K | hexdump -C");
    app->add_option("DISK", verb->disk, "Main file of the disk")->required();
    app->add_option("OFFSET", verb->offset, "First byte; may have K, M, G, T behind it")->required();
    app->add_option("LENGTH", verb->length, "Number of bytes; the same")->required();
    app->add_flag("--quiet", verb->quiet, "Show no progress");
    verb->passwords.addOpenOption(*app);
    app->callback([verb, &chosen] { chosen = [verb] { read(*verb); }; });
}

} // namespace tessel::cli
