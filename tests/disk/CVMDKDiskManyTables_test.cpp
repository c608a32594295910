// Disks of more grain tables than a cache holds: no entry is lost on the way out and in again.

#include "DiskTest.h"

#include <map>

using namespace tessel;
using namespace tessel::test;

namespace {

constexpr int tableCount = 70;
constexpr int64 diskSize = tableCount * 512 * grainBytes; // 2.1875 GiB

struct Row {
    const char* name;
    bool compressed;
    int64 limit;
    int cacheLimit;
    bool automatic; ///< tables leave the cache when there is no more room
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

const Row rows[] = {
    {"PlainThrough0", false, -1, 0, true},       {"PlainThrough1", false, -1, 1, true},
    {"PlainThrough31", false, -1, 31, true},     {"PlainThrough32", false, -1, 32, true},
    {"PlainThrough33", false, -1, 33, true},     {"PlainThrough1024", false, -1, 1024, true},
    {"PlainWithoutBound", false, -1, 1, false},  {"CompressedThrough1", true, -1, 1, true},
    {"CompressedThrough31", true, -1, 31, true}, {"CompressedThrough32", true, -1, 32, true},
    {"CompressedThrough33", true, -1, 33, true}, {"SplitThrough33", false, 2 * GiB, 33, true},
};

class CVMDKDiskManyTablesTest : public DiskTest, public ::testing::WithParamInterface<Row> {
protected:
    P<CVMDKDisk> openThroughCache() {
        const P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(GetParam().cacheLimit));
        P<CVMDKDisk> disk(new CVMDKDisk(files(), uri("disk.vmdk"), forWriting, "", -1, cache.get(), nullptr));
        disk->setAutomaticGrainTableFlushingEnabled(GetParam().automatic);
        return disk;
    }

    /// The contents of a range, which only knows the grains that were written.
    Bytes expected(int64 position, int64 size) const {
        Bytes bytes;
        while (size > 0) {
            const int64 offset = position % grainBytes;
            const int64 piece = std::min(size, grainBytes - offset);
            const auto found = m_grains.find(position / grainBytes);
            const Bytes& grain = found == m_grains.end() ? m_zeros : found->second;
            bytes.insert(bytes.end(), grain.begin() + offset, grain.begin() + offset + piece);
            position += piece;
            size -= piece;
        }
        return bytes;
    }
    void put(int64 position, const Bytes& data) {
        for (std::size_t i = 0; i < data.size();) {
            const int64 offset = position % grainBytes;
            const auto piece =
                static_cast<std::size_t>(std::min(static_cast<int64>(data.size() - i), grainBytes - offset));
            Bytes& grain = m_grains.try_emplace(position / grainBytes, m_zeros).first->second;
            std::copy_n(data.begin() + static_cast<std::ptrdiff_t>(i), piece, grain.begin() + offset);
            position += static_cast<int64>(piece);
            i += piece;
        }
    }

    /// Mostly near the joints of tables, which lie 32 MiB apart.
    int64 randomPosition() {
        const int64 table = static_cast<int64>(m_random() % tableCount);
        const int64 inTable = m_random() % 4 == 0 ? static_cast<int64>(m_random()) % (512 * grainBytes)
                                                  : static_cast<int64>(m_random() % 1000000);
        return std::max<int64>(0, table * 512 * grainBytes + inTable - 500000);
    }
    void changeAtRandom(CVMDKDisk& disk, int steps) {
        for (int step = 0; step < steps; ++step) {
            const int64 position = randomPosition();
            const int64 size = std::min<int64>(1 + m_random() % 100000, diskSize - position);
            if (m_random() % 3 != 0) {
                const Bytes data = randomBytes(m_random(), size);
                writeAt(disk, position, data);
                put(position, data);
            } else {
                ASSERT_EQ(readAt(disk, position, size), expected(position, size)) << "step " << step;
            }
            if (m_random() % 50 == 0)
                disk.flushChanges();
        }
    }

    std::map<int64, Bytes> m_grains;
    const Bytes m_zeros = zeroBytes(grainBytes);
    std::mt19937 m_random{20260102};
};

} // namespace

INSTANTIATE_TEST_SUITE_P(All, CVMDKDiskManyTablesTest, ::testing::ValuesIn(rows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(CVMDKDiskManyTablesTest, AgreesWithTheModelAfterReopening) {
    create({.size = diskSize, .compressed = GetParam().compressed, .limit = GetParam().limit});
    for (int session = 0; session < 2; ++session)
        changeAtRandom(*openThroughCache(), 500);

    const P<CVMDKDisk> disk = openForReading();
    ASSERT_EQ(disk->getSizeBytes(), diskSize);
    for (const auto& [grain, contents] : m_grains)
        ASSERT_EQ(readAt(*disk, grain * grainBytes, grainBytes), contents) << "grain " << grain;
    // Whatever was not written is not there.
    int64 held = 0;
    for (int64 position = 0; position < diskSize;) {
        const UVMDKGrainRun run = disk->findGrainRun(position);
        if (run.layer == 0)
            for (int64 grain = position / grainBytes; grain < (position + run.sizeBytes) / grainBytes;
                 ++grain)
                held += static_cast<int64>(m_grains.count(grain));
        position += run.sizeBytes;
    }
    EXPECT_EQ(held, static_cast<int64>(m_grains.size()));
    EXPECT_EQ(disk->gatherSpaceInfo()->getPayloadSize(), held * grainBytes);
}
