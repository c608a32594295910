// Every kind of disk with every other: filled at random, rewritten, opened anew, and compared with a model
// that knows which disk of the chain holds which grain.

#include "DiskTest.h"

#include <map>

using namespace tessel;
using namespace tessel::test;

namespace {

constexpr int grainCount = 128;
constexpr int nowhere = UVMDKGrainRun::nowhere;

struct DiskKind {
    bool compressed;
    int extents; ///< 1, 3, or as many as there are grains
    bool encrypted;
    int parents;
    bool onDemand;
};

std::string nameOf(const DiskKind& kind) {
    static const char* const parents[] = {"NoParent", "Parent", "Grandparent"};
    return std::string(kind.compressed ? "Compressed" : "Plain") +
           (kind.extents == 1   ? "Single"
            : kind.extents == 3 ? "Split"
                                : "SplitSmall") +
           (kind.encrypted ? "Encrypted" : "Open") + parents[kind.parents] +
           (kind.onDemand ? "OnDemand" : "AllAtOnce");
}

void PrintTo(const DiskKind& kind, std::ostream* out) {
    *out << nameOf(kind);
}

std::vector<DiskKind> allKinds() {
    std::vector<DiskKind> kinds;
    for (const bool compressed : {false, true})
        for (const int extents : {1, 3, grainCount})
            for (const bool encrypted : {false, true})
                for (const int parents : {0, 1, 2})
                    for (const bool onDemand : {false, true})
                        kinds.push_back({compressed, extents, encrypted, parents, onDemand});
    return kinds;
}

/// What a chain of disks holds: the contents of the youngest, and for each grain which disks have it.
struct Model {
    Bytes contents = zeroBytes(grainCount * grainBytes);
    std::vector<std::vector<bool>> layers; ///< the oldest first

    bool hasGrain(std::size_t layer, int grain) const {
        return layers[layer][static_cast<std::size_t>(grain)];
    }
    /// Counted from the youngest.
    int layerOf(int grain) const {
        for (std::size_t i = layers.size(); i-- > 0;)
            if (hasGrain(i, grain))
                return static_cast<int>(layers.size() - 1 - i);
        return nowhere;
    }
    int countOwn() const {
        return static_cast<int>(std::count(layers.back().begin(), layers.back().end(), true));
    }
    void put(int64 position, const Bytes& data) {
        std::copy(data.begin(), data.end(), contents.begin() + position);
        if (!data.empty())
            for (int64 grain = position / grainBytes;
                 grain <= (position + static_cast<int64>(data.size()) - 1) / grainBytes; ++grain)
                layers.back()[static_cast<std::size_t>(grain)] = true;
    }
    Bytes get(int64 position, int64 size) const {
        return Bytes(contents.begin() + position, contents.begin() + position + size);
    }
};

class CVMDKDiskMatrixTest : public DiskTest, public ::testing::WithParamInterface<DiskKind> {
protected:
    static const char* password() { return GetParam().encrypted ? "secret" : ""; }

    P<CVMDKDisk> createOfKind(const String& name, const String& parent = String(),
                              unsigned int parentID = noParent) {
        const DiskKind& kind = GetParam();
        // The smallest limits make every grain an extent of its own.
        const int64 smallest = kind.compressed ? 4098049 : 131073;
        const int64 threeFiles = kind.compressed ? 11 * MiB : 3 * MiB + 2 * grainBytes;
        return create({.size = grainCount * grainBytes,
                       .password = password(),
                       .compressed = kind.compressed,

                       .limit = kind.extents == 1   ? -1
                                : kind.extents == 3 ? threeFiles
                                                    : smallest,
                       .parentPath = parent,
                       .parentID = parentID,
                       .onDemand = kind.onDemand},
                      name);
    }
    P<CVMDKDisk> openOfKind(IIOStream::Access access, const String& name) {
        return open(access, name, password());
    }

    /// One change, of the disk and of the model.
    void change(CVMDKDisk& disk) {
        const int grain = static_cast<int>(m_random() % grainCount);
        switch (m_random() % 8) {
        case 0: { // a whole grain of zeros, stored as such
            TBuffer<unsigned char> prepared = prepare(disk, zeroBytes(grainBytes));
            disk.seek(grain * grainBytes);
            disk.writePreparedGrainData(prepared);
            m_model.put(grain * grainBytes, zeroBytes(grainBytes));
            break;
        }
        case 1: { // zeros in a grain that is there
            if (!m_model.hasGrain(m_model.layers.size() - 1, grain))
                break;
            disk.flushChanges();
            const int64 start = static_cast<int64>(m_random() % grainSize);
            const Bytes zeros = zeroBytes(static_cast<int64>(m_random()) % (grainBytes - start));
            writeAt(disk, grain * grainBytes + start, zeros);
            m_model.put(grain * grainBytes + start, zeros);
            break;
        }
        case 2:
            if (m_model.layers.size() > 1) {
                EXPECT_GT(disk.makeGrainIndependentOfParent(grain), 0);
                m_model.layers.back()[static_cast<std::size_t>(grain)] = true;
            }
            break;
        case 3: { // text, which compresses
            const Bytes text(m_random() % 200000, static_cast<unsigned char>('a' + m_random() % 26));
            put(disk, text);
            break;
        }
        default:
            put(disk, randomBytes(m_random(), static_cast<int64>(m_random() % 200000)));
        }
    }

    void compare(CVMDKDisk& disk) {
        EXPECT_EQ(readAll(disk), m_model.contents);
        for (int64 position = 0; position < disk.getSizeBytes();) {
            const UVMDKGrainRun run = disk.findGrainRun(position);
            EXPECT_EQ(run.position, position);
            EXPECT_EQ(run.sizeBytes % grainBytes, 0);
            ASSERT_GT(run.sizeBytes, 0);
            for (int64 end = position + run.sizeBytes; position < end; position += grainBytes) {
                const int grain = static_cast<int>(position / grainBytes);
                EXPECT_EQ(run.layer, m_model.layerOf(grain)) << "grain " << grain;
                disk.seek(position);
                EXPECT_EQ(disk.isGrainWritten(), run.layer != nowhere) << "grain " << grain;
                EXPECT_EQ(disk.isGrainWrittenAndIndependentOfParent(), run.layer == 0) << "grain " << grain;
            }
        }
    }

    void compareSpace(CVMDKDisk& disk) {
        const P<CVMDKSpaceInfo> space = disk.gatherSpaceInfo();
        int64 fileBytes = 0;
        for (const auto& [key, value] : disk.getExtentMap())
            if (m_memory->fileExists(value.uri))
                fileBytes += static_cast<int64>(getFile(value.uri.getName()).size());
        EXPECT_EQ(space->getPayloadSize(), m_model.countOwn() * grainBytes);
        EXPECT_EQ(space->getHeaderSize() + space->getPayloadSizeInFile() + space->getDeadSpaceSize(),
                  fileBytes);
        if (!GetParam().compressed) {
            EXPECT_EQ(space->getPayloadSizeInFile(), space->getPayloadSize());
            EXPECT_EQ(space->getDeadSpaceSize(), 0);
        }
    }

    /// A copy without parent, of prepared grains, is the same.
    void compareWithPreparedCopy(CVMDKDisk& disk) {
        {
            const P<CVMDKDisk> copy = createOfKind("copy.vmdk");
            EXPECT_EQ(copy->getCompressed(), disk.getCompressed());
            TBuffer<unsigned char> prepared;
            for (int grain = 0; grain < grainCount; ++grain) {
                disk.seek(grain * grainBytes);
                if (!disk.isGrainWritten())
                    continue;
                disk.readPreparedGrainData(prepared);
                copy->seek(grain * grainBytes);
                copy->writePreparedGrainData(prepared);
            }
        }
        EXPECT_EQ(readAll(*openOfKind(forReading, "copy.vmdk")), m_model.contents);
    }

    Model m_model;
    std::mt19937 m_random{20260101};

private:
    void put(CVMDKDisk& disk, Bytes data) {
        if (data.empty())
            return;
        const auto size = static_cast<int64>(data.size());
        const int64 position = static_cast<int64>(m_random()) % (grainCount * grainBytes - size);
        // No grain is left all zeros: one that has no place yet would not be given one.
        for (int64 i = 0; i < size; i += 512)
            data[static_cast<std::size_t>(i)] |= 1;
        writeAt(disk, position, data);
        m_model.put(position, data);
    }
    static TBuffer<unsigned char> prepare(CVMDKDisk& disk, const Bytes& data) {
        const P<TBuffer<unsigned char>> source(
            new TBuffer<unsigned char>(data.data(), static_cast<int64>(data.size())));
        const P<TBuffer<unsigned char>> aux(new TBuffer<unsigned char>);
        return *disk.createDataPreparer()->prepareGrainData(source.get(), 0, aux.get());
    }
};

} // namespace

INSTANTIATE_TEST_SUITE_P(All, CVMDKDiskMatrixTest, ::testing::ValuesIn(allKinds()),
                         [](const auto& row) { return nameOf(row.param); });

TEST_P(CVMDKDiskMatrixTest, AgreesWithTheModel) {
    String parent;
    unsigned int parentID = noParent;
    for (int layer = 0; layer <= GetParam().parents; ++layer) {
        const String name = "disk" + toDecimal(layer) + ".vmdk";
        m_model.layers.emplace_back(grainCount, false);
        for (int session = 0; session < 2; ++session) {
            const P<CVMDKDisk> disk =
                session == 0 ? createOfKind(name, parent, parentID) : openOfKind(forWriting, name);
            EXPECT_EQ(disk->getEncrypted(), GetParam().encrypted);
            EXPECT_EQ(disk->getExtentMap().size(), static_cast<std::size_t>(GetParam().extents));
            for (int step = 0; step < (GetParam().extents == grainCount ? 12 : 40); ++step) {
                change(*disk);
                const int64 position = static_cast<int64>(m_random()) % (grainCount * grainBytes - 100000);
                ASSERT_EQ(readAt(*disk, position, 100000), m_model.get(position, 100000));
            }
            if (session == 1)
                compare(*disk);
            parentID = disk->getDescriptor()->getContentID();
        }
        parent = name;
    }
    const P<CVMDKDisk> disk = openOfKind(forReading, parent);
    compare(*disk);
    compareSpace(*disk);
    compareWithPreparedCopy(*disk);
}
