// Random rewriting of an extent, against a row of bytes and an account of every slot.

#include "ExtentFixture.h"
#include "lum/Numbers.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace tessel::test {
namespace {

constexpr int64 grainSize = 8192;
constexpr int64 grainCount = 8192;
constexpr int64 capacity = grainSize * grainCount; // 64 MiB
constexpr int64 largestWrite = 300 * 1024;

struct UKind {
    bool compressed;
    int level;
};

class CVMDKSparseExtentFileModelTest : public ExtentTest, public ::testing::WithParamInterface<UKind> {
protected:
    struct USlot {
        int64 position = 0;
        int64 size = 0;
    };

    void SetUp() override {
        createExtent({.compressed = GetParam().compressed,
                      .grainCount = grainCount,
                      .grainSizeSectors = grainSize / 512});
        m_worstCaseSlotSize =
            CVMDKDataPreparer(grainSize / 512, true, GetParam().level).getWorstCaseGrainSizeSectors();
        m_random.seed(static_cast<unsigned int>(4711 + GetParam().level));
    }

    int64 draw(int64 limit) { return static_cast<int64>(m_random() % static_cast<uint64>(limit)); }

    P<CVMDKSparseExtentFile> open() { return openExtent({.compressionLevel = GetParam().level}); }

    /// Mostly small, now and then anything up to the largest; every length from 1 on is met.
    int64 drawSize() {
        if (draw(50) == 0)
            return 1 + draw(largestWrite);
        const double exponent = static_cast<double>(draw(100000)) / 100000;
        return static_cast<int64>(std::pow(2.0 * grainSize, exponent));
    }

    void fill(Bytes& data) {
        const auto seed = static_cast<unsigned int>(draw(1 << 20));
        switch (draw(5)) {
        case 0:
            break; // zeros
        case 1:
        case 2:
            data = patternBytes(data.getUsed(), seed);
            break;
        case 3: { // half of it noise
            data = randomBytes(data.getUsed(), seed);
            for (int64 i = 0; i < data.getUsed(); ++i)
                data[i] = (i / 64) % 2 == 0 ? data[i] : 'x';
            break;
        }
        default:
            data = randomBytes(data.getUsed(), seed);
        }
    }

    void writeSomething(CVMDKSparseExtentFile& extent) {
        const bool isAligned = draw(3) == 0; // whole grains, from a grain's start
        const int64 unit = isAligned ? grainSize : 1;
        Bytes data(roundUp(drawSize(), unit));
        fill(data);
        // Half of the writes go to a small part, so that grains are rewritten again and again.
        const int64 position = draw((draw(2) == 0 ? capacity / 32 : capacity) - data.getUsed()) / unit * unit;
        extent.seek(position);
        noteSlots(extent, m_lastBegin, m_lastEnd); // all that was written before is in the file now
        extent.write(data.getData(), static_cast<int>(data.getUsed()));
        std::copy_n(data.getData(), data.getUsed(), m_model.getData() + position);
        m_lastBegin = position / grainSize;
        m_lastEnd = divideRoundingUp(position + data.getUsed(), grainSize);
        noteSlots(extent, m_lastBegin, m_lastEnd);
    }

    void noteSlots(CVMDKSparseExtentFile& extent, int64 begin, int64 end) {
        for (int64 grain = begin; grain < end; ++grain) {
            USlot slot;
            extent.getGrainDirectory().getGrainInfo(grain, slot.position, slot.size);
            USlot& known = m_slots[static_cast<std::size_t>(grain)];
            if (slot.position == known.position) {
                ASSERT_EQ(slot.size, known.size);
                continue;
            }
            if (known.position != 0) {
                ASSERT_EQ(slot.size, m_worstCaseSlotSize) << "a grain that moves takes a slot for good";
                m_deadSize += known.size * 512;
                ++m_moves;
            }
            known = slot;
        }
    }

    void expectAccount(CVMDKSparseExtentFile& extent) {
        const P<CVMDKSpaceInfo> info = extent.gatherSpaceInfo();
        noteSlots(extent, m_lastBegin, m_lastEnd);
        int64 payload = 0;
        int64 payloadInFile = 0;
        for (const USlot& slot : m_slots) {
            payload += slot.position != 0 ? grainSize : 0;
            payloadInFile += slot.size * 512;
        }
        const int64 header = static_cast<int64>(extent.getHeader().getOverheadSectors()) * 512;
        EXPECT_EQ(info->getPayloadSize(), payload);
        EXPECT_EQ(info->getPayloadSizeInFile(), payloadInFile);
        EXPECT_EQ(info->getHeaderSize(), header);
        EXPECT_EQ(info->getDeadSpaceSize(), m_deadSize + m_trailSize);
        EXPECT_EQ(m_memory->openFile(extentURI, IIOStream::Access_Read)->getLength(),
                  header + payloadInFile + m_deadSize + m_trailSize);
    }

    void expectContents(CVMDKSparseExtentFile& extent, int64 position, int64 count) {
        ASSERT_TRUE(readAt(extent, position, count) == slice(m_model, position, count))
            << "from " << position << " on, " << count << " bytes";
    }

    void expectAllContents(CVMDKSparseExtentFile& extent) {
        constexpr int64 piece = 1024 * 1024;
        for (int64 position = 0; position < capacity; position += piece)
            ASSERT_NO_FATAL_FAILURE(expectContents(extent, position, piece));
    }

    std::mt19937_64 m_random;
    Bytes m_model{capacity};
    std::vector<USlot> m_slots = std::vector<USlot>(grainCount);
    int64 m_lastBegin = 0;
    int64 m_lastEnd = 0;
    int64 m_deadSize = 0;
    int64 m_trailSize = GetParam().compressed ? 1536 : 0;
    int64 m_worstCaseSlotSize = 0;
    int m_moves = 0;
};

std::string nameOf(const ::testing::TestParamInfo<UKind>& info) {
    return info.param.compressed ? "Level" + std::to_string(info.param.level) : "Plain";
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKSparseExtentFileModelTest,
                         ::testing::Values(UKind{false, 1}, UKind{true, 0}, UKind{true, 1}, UKind{true, 6},
                                           UKind{true, 9}),
                         nameOf);

TEST_P(CVMDKSparseExtentFileModelTest, TenThousandWritesAgree) {
    auto extent = open();
    for (int i = 1; i <= 10000; ++i) {
        ASSERT_NO_FATAL_FAILURE(writeSomething(*extent)) << "write " << i;
        if (i % 20 == 0) {
            const int64 count = 1 + draw(4 * grainSize);
            ASSERT_NO_FATAL_FAILURE(expectContents(*extent, draw(capacity - count), count)) << "write " << i;
            noteSlots(*extent, m_lastBegin, m_lastEnd);
        }
        if (i % 2500 == 0) {
            ASSERT_NO_FATAL_FAILURE(expectAccount(*extent)) << "write " << i;
        }
        if (i == 5000) { // goes on with what it finds in the file
            extent = nullptr;
            extent = open();
        }
    }
    if (!GetParam().compressed) {
        EXPECT_EQ(m_moves, 0);
    } else if (GetParam().level != 0) {
        EXPECT_GT(m_moves, 500);
    }
    ASSERT_NO_FATAL_FAILURE(expectAllContents(*extent));
    extent = nullptr;
    extent = open();
    ASSERT_NO_FATAL_FAILURE(expectAllContents(*extent));
    expectAccount(*extent);
}

} // namespace tessel::test
