// What nbdkit calls. No exception leaves a callback: it becomes a line of the server and an errno for the
// client.

#define THREAD_MODEL NBDKIT_THREAD_MODEL_SERIALIZE_ALL_REQUESTS

#include "CServedDisk.h"
#include "CServerLog.h"
#include "ErrorNumbers.h"
#include "Server.h"
#include "lum/CError.h"
#include "lum/CNativeFileSystem.h"
#include "lum/Logging.h"

#include <algorithm>
#include <bit>
#include <cerrno>

namespace tessel::nbdkit {

std::string toServerLine(const String& text) {
    // An error without parameters is described by its message alone, as one line without control characters.
    return describeError(CError(text)).toUTF8Lossy();
}

namespace {

// The objects of the process. They are no static objects: nothing may happen to an open disk when the process
// that started the server ends after the server has gone to the background.
CParameters* g_parameters = nullptr;
CServedDisk* g_disk = nullptr;

void tellError(const std::exception& error) noexcept {
    try {
        const auto* const own = dynamic_cast<const CError*>(&error);
        if (own && own->getMessage().isEmpty())
            return; // the server has told it
        std::string text = describeError(error).toUTF8Lossy();
        if (own && own->getMessage() == "The file is outside the folders that may be used.")
            text += "; allow=DIR lets a disk name files below another folder";
        // Later errors, of the contents for instance, do not always name a file.
        if (g_disk)
            text = uriToNativePath(g_disk->getFile()).toUTF8Lossy() + ": " + text;
        nbdkit_error("%s", text.c_str());
    } catch (const std::exception&) {
        nbdkit_error("an error that cannot be described");
    }
}

/// Runs `action` for a callback. Returns what the server expects: 0 or -1.
template <class Action>
int guarded(Action action) noexcept {
    try {
        action();
        return 0;
    } catch (const std::exception& error) {
        tellError(error);
        nbdkit_set_error(errorNumberOf(error));
        return -1;
    }
}

// --- The server's life ---

void load() {
    guarded([] { setLogSink(P<ILogSink>(new CServerLog).get()); });
}

void unload() {
    delete g_parameters;
    g_parameters = nullptr;
    setLogSink(nullptr);
}

int config(const char* key, const char* value) {
    return guarded([&] {
        if (!g_parameters)
            g_parameters = new CParameters;
        g_parameters->set(key, value);
    });
}

int completeConfig() {
    return guarded([] {
        if (!g_parameters)
            g_parameters = new CParameters;
        g_parameters->verifyComplete();
    });
}

/// Opens the disk while whoever starts the server still sees its messages.
int getReady() {
    return guarded([] {
        const P<IFileSystem> files(new CNativeFileSystem);
        g_disk = new CServedDisk(files.get(), *g_parameters);
        g_parameters->forgetPassword();
    });
}

/// All clients are gone, or the server never got as far as opening the disk.
void cleanUp() {
    if (!g_disk)
        return;
    guarded([] { g_disk->flush(); });
    delete g_disk;
    g_disk = nullptr;
}

// --- A client's connection ---

void* open(int) {
    return NBDKIT_HANDLE_NOT_NEEDED;
}

/// A client that goes without having flushed shall find what it wrote all the same.
void close(void*) {
    guarded([] { g_disk->flush(); });
}

int64_t getSize(void*) {
    return g_disk->getSizeBytes();
}

int getBlockSize(void*, uint32_t* minimum, uint32_t* preferred, uint32_t* maximum) {
    constexpr int64 largest = 32 << 20; // what the protocol lets a client send without asking
    const auto grainSize = static_cast<uint64>(g_disk->getGrainSizeBytes());
    const bool canBeTold = std::has_single_bit(grainSize) && grainSize <= largest;
    *minimum = canBeTold ? 1 : 0;
    *preferred = canBeTold ? static_cast<uint32_t>(grainSize) : 0;
    *maximum = canBeTold ? UINT32_MAX : 0;
    return 0;
}

int canWrite(void*) {
    return g_disk->isWritable() ? 1 : 0;
}

int canTrim(void*) {
    return g_disk->canTrim() ? 1 : 0;
}

int canAlways(void*) {
    return 1;
}

// --- Data ---

int read(void*, void* buffer, uint32_t count, uint64_t offset, uint32_t) {
    return guarded([&] { g_disk->read(static_cast<int64>(offset), buffer, count); });
}

int write(void*, const void* data, uint32_t count, uint64_t offset, uint32_t flags) {
    return guarded([&] {
        g_disk->write(static_cast<int64>(offset), data, count);
        if ((flags & NBDKIT_FLAG_FUA) != 0)
            g_disk->flush();
    });
}

int zero(void*, uint32_t count, uint64_t offset, uint32_t flags) {
    bool isTooSlow = false;
    const int result = guarded([&] {
        const auto position = static_cast<int64>(offset);
        isTooSlow = (flags & NBDKIT_FLAG_FAST_ZERO) != 0 && !g_disk->isZeroingFast(position, count);
        if (isTooSlow)
            return;
        g_disk->writeZeros(position, count);
        if ((flags & NBDKIT_FLAG_FUA) != 0)
            g_disk->flush();
    });
    if (!isTooSlow)
        return result;
    nbdkit_set_error(EOPNOTSUPP); // no failure: the client asked whether it would be fast
    return -1;
}

int trim(void*, uint32_t count, uint64_t offset, uint32_t flags) {
    return guarded([&] {
        g_disk->trim(static_cast<int64>(offset), count);
        if ((flags & NBDKIT_FLAG_FUA) != 0)
            g_disk->flush();
    });
}

int flush(void*, uint32_t) {
    return guarded([] { g_disk->flush(); });
}

int listExtents(void*, uint32_t count, uint64_t offset, uint32_t flags, struct nbdkit_extents* extents) {
    bool hasServerFailed = false; // and told why
    const int result = guarded([&] {
        const bool wantsOne = (flags & NBDKIT_FLAG_REQ_ONE) != 0;
        const auto start = static_cast<int64>(offset);
        const int64 wantedEnd = start + count;
        const CServedDisk::URun first = g_disk->findRun(start);
        CServedDisk::URun run = first;
        for (int64 position = start; position < wantedEnd && !hasServerFailed; position = run.end) {
            if (position != start)
                run = g_disk->findRun(position);
            if (wantsOne && run.isHole != first.isHole)
                break;
            // Not beyond what was asked for: the server breaks off at an extent of 4 GiB and more.
            const int64 end = std::min(run.end, wantedEnd);
            const uint32_t type = run.isHole ? NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO : 0;
            hasServerFailed = nbdkit_add_extent(extents, static_cast<uint64_t>(position),
                                                static_cast<uint64_t>(end - position), type) != 0;
        }
    });
    return hasServerFailed ? -1 : result;
}

struct nbdkit_plugin describePlugin() {
    struct nbdkit_plugin plugin = {};
    plugin.name = "tessel";
    plugin.longname = "VMDK disks";
    plugin.version = TESSEL_VERSION;
    plugin.description =
        "Serves a virtual disk in the VMDK format, with its parents, for reading and writing.";
    plugin.config_help = CParameters::help;
    plugin.magic_config_key = "file";
    plugin.load = load;
    plugin.unload = unload;
    plugin.config = config;
    plugin.config_complete = completeConfig;
    plugin.get_ready = getReady;
    plugin.cleanup = cleanUp;
    plugin.open = open;
    plugin.close = close;
    plugin.get_size = getSize;
    plugin.block_size = getBlockSize;
    plugin.can_write = canWrite;
    plugin.can_flush = canAlways;
    plugin.can_trim = canTrim;
    plugin.can_zero = canWrite;
    plugin.can_fast_zero = canAlways;
    plugin.can_fua = [](void*) -> int { return NBDKIT_FUA_NATIVE; };
    // A flush is one of the whole disk, whichever connection asks for it.
    plugin.can_multi_conn = canAlways;
    plugin.pread = read;
    plugin.pwrite = write;
    plugin.flush = flush;
    plugin.trim = trim;
    plugin.zero = zero;
    plugin.extents = listExtents;
    return plugin;
}

struct nbdkit_plugin g_plugin = describePlugin();

} // namespace

} // namespace tessel::nbdkit

using tessel::nbdkit::g_plugin;
NBDKIT_REGISTER_PLUGIN(g_plugin)
