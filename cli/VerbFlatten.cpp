#include "CProgress.h"
#include "DiskFacts.h"
#include "Errors.h"
#include "Names.h"
#include "StoredGrain.h"
#include "Verbs.h"
#include "lum/CNativeFileSystem.h"
#include "platform.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace tessel::cli {

namespace {

struct UFlatten {
    std::string disk;
    bool quiet = false;
    bool json = false;
    int level = -1;
    CPasswords passwords;
};

/// Moves what the parents hold into a disk. Interrupted at any point it leaves a child of the same contents.
class CFlattening {
public:
    /// All are borrowed; `parents` are those of the disk, nearest first.
    CFlattening(CVMDKDisk* disk, const TArray<P<CVMDKDisk>>* parents)
        : m_disk(disk), m_parents(parents), m_grainSize(disk->getGrainSizeBytes()), m_grain(m_grainSize) {}

    /// Bytes that the disk has taken over.
    int64 getMovedBytes() const noexcept { return m_movedBytes; }

    void run(CProgress& progress) {
        const int64 size = m_disk->getSizeBytes();
        for (int64 position = 0; position < size; progress.advanceTo(position)) {
            throwIfInterrupted();
            const UVMDKGrainRun run = m_disk->findGrainRun(position);
            const int64 end = run.position + run.sizeBytes;
            if (run.layer <= 0) {
                position = end;
                continue;
            }
            for (; position < end; progress.advanceTo(position)) {
                throwIfInterrupted();
                moveGrain(position / m_grainSize, run, end);
                const int64 grainEnd = std::min(size, (position / m_grainSize + 1) * m_grainSize);
                m_movedBytes += grainEnd - position / m_grainSize * m_grainSize;
                position = grainEnd;
            }
        }
    }

private:
    /// A grain passes as it is stored where all of it is stored like this disk's grains, in one place.
    void moveGrain(int64 grain, const UVMDKGrainRun& run, int64 runEnd) {
        const int64 start = grain * m_grainSize;
        if (!run.isStoredAlike || start < run.position || runEnd - start < m_grainSize) {
            movePlain(grain);
            return;
        }
        if (m_disk->getCompressed()) {
            m_disk->seek(start);
            m_disk->readPreparedGrainData(m_record);
            const CURI parent = (*m_parents)[static_cast<std::size_t>(run.layer - 1)]->getMainFileURI();
            verifyIsRecordOf(nameFromPath(pathFromURI(parent)), start, m_record);
        }
        m_disk->makeGrainIndependentOfParent(grain);
    }

    void movePlain(int64 grain) {
        const int64 start = grain * m_grainSize;
        const int count = static_cast<int>(std::min(m_grainSize, m_disk->getSizeBytes() - start));
        m_disk->seek(start);
        m_disk->read(m_grain.getData(), count);
        m_disk->seek(start);
        m_disk->write(m_grain.getData(), count); // zeros need not be stored where no parent will be
    }

    CVMDKDisk* m_disk;
    const TArray<P<CVMDKDisk>>* m_parents;
    int64 m_grainSize;
    TBuffer<unsigned char> m_record;
    TBuffer<unsigned char> m_grain;
    int64 m_movedBytes = 0;
};

void tellAsJson(const UFlatten& verb, const TArray<P<CVMDKDisk>>& parents, int64 movedBytes) {
    Json json;
    json["takenOverBytes"] = movedBytes;
    json["oldParents"] = Json::array();
    for (const auto& parent : parents)
        json["oldParents"].push_back(nameFromPath(pathFromURI(parent->getMainFileURI())));
    json["disk"] = describeDisk(verb.disk);
    writeJsonOfWork(json);
}

void flatten(UFlatten& verb) {
    const P<IFileSystem> files(new CNativeFileSystem);
    const String& password = verb.passwords.getForOpening(verb.disk);
    const P<CVMDKDisk> disk =
        openDisk(verb.disk, IIOStream::Access_ReadWrite, password, files.get(), verb.level);
    if (disk->getParentDiskMainURI().isEmpty())
        throw CFailure(verb.disk, "This disk has no parent and stands alone already");
    const TArray<P<CVMDKDisk>> parents = openParents(verb.disk, *disk, password, files.get());
    const bool isAnyEncrypted = std::any_of(
        parents.begin(), parents.end(), [](const P<CVMDKDisk>& parent) { return parent->getEncrypted(); });
    if (isAnyEncrypted && !disk->getEncrypted())
        tellWarning(verb.disk +
                    ": A parent is encrypted and this disk is not: what it takes over can be read "
                    "by everybody");
    // What the guest sees stays the same, and children of this disk rely on that.
    disk->setContentIDUpdatesEnabled(false);
    CFlattening flattening(disk.get(), &parents);
    {
        CProgress progress(disk->getSizeBytes(), verb.quiet);
        about(verb.disk, [&] { flattening.run(progress); });
    }
    throwIfInterrupted();
    about(verb.disk, [&] {
        disk->flushChanges();
        disk->removeParent();
        disk->flushChanges();
    });
    if (verb.json)
        tellAsJson(verb, parents, flattening.getMovedBytes());
}

} // namespace

void addFlattenVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<UFlatten>();
    CLI::App* const app =
        program.add_subcommand("flatten", "Take over what a child's parents hold, so that it stands alone");
    app->footer("  tessel flatten child.vmdk");
    app->add_option("DISK", verb->disk, "Main file of the child")->required();
    app->add_option("--level", verb->level, "Compression level, 0 to 9, where grains must be compressed anew")
        ->type_name("N")
        ->check(CLI::Range(0, 9));
    app->add_flag("--json", verb->json, "Answer for programs");
    app->add_flag("--quiet", verb->quiet, "Show no progress");
    verb->passwords.addOpenOption(*app);
    app->callback([verb, &chosen] { chosen = [verb] { flatten(*verb); }; });
}

} // namespace tessel::cli
