#include "CGrainFixture.h"
#include "CLogRecorder.h"
#include "tessel/CVMDKGrain.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

struct Parameters {
    bool compressed;
    bool encrypted;
    int level;
    bool buffered;
};

/// Random writes over many grains, held against an array of bytes.
class CVMDKGrainModelTest : public CGrainFixture, public ::testing::WithParamInterface<Parameters> {
protected:
    static constexpr int64 grainCount = 700; // more than one table

    void SetUp() override {
        m_extent = std::make_unique<CTestExtent>(CTestExtent::Settings{.compressed = GetParam().compressed,
                                                                       .encrypted = GetParam().encrypted,
                                                                       .grainCount = grainCount,
                                                                       .compressionLevel = GetParam().level,
                                                                       .buffered = GetParam().buffered});
        m_extent->open();
    }

    int64 pick(int64 count) { return static_cast<int64>(m_random() % static_cast<uint64>(count)); }
    /// Few of the grains are changed again and again, the others now and then.
    int64 pickGrain() { return pick(3) == 0 ? pick(grainCount) : 490 + pick(40); }
    Bytes expected(int64 grainIndex) const { return slice(m_model, grainIndex * grainBytes, grainBytes); }
    void expect(int64 grainIndex, int64 offset, const Bytes& bytes) {
        std::copy_n(bytes.getData(), bytes.getUsed(), m_model.getData() + grainIndex * grainBytes + offset);
    }
    Bytes pickBytes(int64 count) {
        switch (pick(3)) {
        case 0:
            return Bytes(count);
        case 1:
            return patternBytes(count, static_cast<unsigned int>(m_random()));
        default:
            return noise(count, static_cast<unsigned int>(m_random()));
        }
    }
    void writeSomewhere() {
        const int64 grainIndex = pickGrain();
        const int64 count = pick(4) == 0 ? grainBytes : 1 + pick(grainBytes);
        const int64 offset = pick(grainBytes - count + 1);
        const Bytes bytes = pickBytes(count);
        m_extent->write(grainIndex, offset, bytes);
        expect(grainIndex, offset, bytes);
    }
    void copyPrepared() {
        const int64 from = pickGrain();
        const int64 to = pickGrain();
        Bytes prepared;
        m_extent->openGrain(from);
        grain().readPreparedGrainData(prepared);
        m_extent->openGrain(to);
        grain().writePreparedGrainData(prepared);
        expect(to, 0, expected(from));
    }
    void changeALot(int steps) {
        for (int i = 0; i < steps; ++i) {
            const int64 kind = pick(100);
            if (kind < 75) {
                writeSomewhere();
            } else if (kind < 85) {
                const int64 grainIndex = pickGrain();
                ASSERT_EQ(m_extent->read(grainIndex), expected(grainIndex)) << i;
            } else if (kind < 92) {
                copyPrepared();
            } else if (kind < 98) {
                m_extent->flush();
            } else {
                m_extent->open(); // with what is pending
            }
        }
    }
    void compareAll() {
        for (int64 i = 0; i < grainCount; ++i)
            ASSERT_EQ(m_extent->read(i), expected(i)) << i;
    }
    /// Slots lie behind the metadata, within the file, and apart from each other.
    void expectSoundSlots() {
        TMap<int64, int64> slots;
        for (int64 i = 0; i < grainCount; ++i) {
            const Info info = m_extent->info(i);
            if (info.posSectors != 0) {
                ASSERT_TRUE(slots.emplace(info.posSectors, info.slotSizeSectors).second) << i;
            }
        }
        EXPECT_GT(slots.size(), 40u);
        int64 end = m_extent->overheadBytes() / 512;
        for (const auto& [posSectors, sizeSectors] : slots) {
            ASSERT_GE(posSectors, end);
            end = posSectors + sizeSectors;
        }
        EXPECT_LE(end * 512 + m_extent->trail().getUsed(), m_extent->fileLength());
        EXPECT_EQ(
            m_extent->file(m_extent->fileLength() - m_extent->trail().getUsed(), m_extent->trail().getUsed()),
            m_extent->trail());
    }

    Bytes m_model = Bytes(grainCount * grainBytes);
    std::mt19937 m_random{20240607};
};

TEST_P(CVMDKGrainModelTest, AgreesWithItBeforeAndAfterOpeningAnew) {
    CLogRecorder log;
    for (int round = 0; round < 3; ++round) {
        ASSERT_NO_FATAL_FAILURE(changeALot(250));
        if (round == 0) {
            ASSERT_NO_FATAL_FAILURE(compareAll());
        }
        m_extent->close();
        m_extent->open(round == 2 ? IIOStream::Access_Read : IIOStream::Access_ReadWrite);
        ASSERT_NO_FATAL_FAILURE(compareAll());
        ASSERT_NO_FATAL_FAILURE(expectSoundSlots());
    }
    EXPECT_THAT(log.takeEntries(), ::testing::IsEmpty());
}

TArray<Parameters> makeParameters() {
    TArray<Parameters> all;
    for (const bool encrypted : {false, true})
        for (const bool buffered : {false, true}) {
            all.push_back({false, encrypted, 1, buffered});
            for (const int level : {0, 1, 6, 9})
                all.push_back({true, encrypted, level, buffered});
        }
    return all;
}

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKGrainModelTest, ::testing::ValuesIn(makeParameters()),
                         [](const auto& test) {
                             const Parameters& kind = test.param;
                             return (kind.compressed ? "CompressedLevel" + std::to_string(kind.level)
                                                     : std::string("Plain")) +
                                    (kind.encrypted ? "Encrypted" : "Open") +
                                    (kind.buffered ? "Buffered" : "");
                         });

} // namespace
} // namespace tessel::test
