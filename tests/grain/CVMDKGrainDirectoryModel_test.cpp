#include "CLogRecorder.h"
#include "CTestExtent.h"

#include <gmock/gmock.h>

#include <cstring>
#include <memory>
#include <random>

namespace tessel::test {
namespace {

using Info = CTestExtent::Info;

struct Parameters {
    int cacheLimit;
    bool compressed;
    bool buffered;
    int extents; ///< that share the cache
};

void PrintTo(const Parameters& parameters, std::ostream* out) {
    *out << "cache of " << parameters.cacheLimit << (parameters.compressed ? ", compressed" : "")
         << (parameters.buffered ? ", buffered" : "") << ", extents: " << parameters.extents;
}

/// Random looking up and changing of grains, held against maps in memory.
class CVMDKGrainDirectoryModelTest : public ::testing::TestWithParam<Parameters> {
protected:
    static constexpr int64 tableCount = 70;
    static constexpr int64 grainCount = tableCount * 512;
    static constexpr int64 grainSizeSectors = 8;

    struct Modelled {
        std::unique_ptr<CTestExtent> extent;
        TMap<int64, Info> grains;
    };

    void open(IIOStream::Access access) {
        const P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(GetParam().cacheLimit));
        for (Modelled& modelled : m_modelled)
            modelled.extent->openDirectory(access, cache.get());
    }
    void SetUp() override {
        for (int i = 0; i < GetParam().extents; ++i)
            m_modelled.push_back(
                {std::make_unique<CTestExtent>(CTestExtent::Settings{.compressed = GetParam().compressed,
                                                                     .grainCount = grainCount,
                                                                     .grainSizeSectors = grainSizeSectors,
                                                                     .buffered = GetParam().buffered}),
                 {}});
        open(IIOStream::Access_ReadWrite);
    }
    static Info expected(const Modelled& modelled, int64 grainIndex) {
        const auto found = modelled.grains.find(grainIndex);
        return found == modelled.grains.end() ? Info{0, 0} : found->second;
    }
    void changeAndLookUp(int count) {
        for (int i = 0; i < count; ++i) {
            Modelled& modelled = m_modelled[m_random() % m_modelled.size()];
            // Often near the last place, so that tables are hit as well as missed.
            if (m_random() % 2 == 0)
                m_place = static_cast<int64>(m_random() % grainCount);
            const int64 grainIndex = std::min(m_place + static_cast<int64>(m_random() % 700), grainCount - 1);
            if (m_random() % 3 != 0) {
                const Info info{1 + static_cast<int64>(m_random() % 0xFFFFFFFF),
                                GetParam().compressed ? 1 + static_cast<int64>(m_random() % 0xFFFF)
                                                      : grainSizeSectors};
                modelled.extent->directory().setGrainInfo(grainIndex, info.posSectors, info.slotSizeSectors);
                modelled.grains[grainIndex] = info;
            }
            ASSERT_EQ(modelled.extent->info(grainIndex), expected(modelled, grainIndex)) << i;
            const auto known = modelled.grains.lower_bound(static_cast<int64>(m_random() % grainCount));
            if (known != modelled.grains.end()) {
                ASSERT_EQ(modelled.extent->info(known->first), known->second) << i;
            }
            if (m_random() % 100 == 0)
                modelled.extent->flush();
        }
    }
    void compareAll() {
        for (Modelled& modelled : m_modelled)
            for (const auto& [grainIndex, info] : modelled.grains)
                ASSERT_EQ(modelled.extent->info(grainIndex), info) << grainIndex;
    }
    /// Every table in the file, primary and redundant, against the model.
    void compareFiles() {
        for (Modelled& modelled : m_modelled) {
            const CTestExtent& extent = *modelled.extent;
            TArray<uint32> expectedEntries(static_cast<std::size_t>(grainCount));
            for (const auto& [grainIndex, info] : modelled.grains)
                expectedEntries[static_cast<std::size_t>(grainIndex)] = static_cast<uint32>(info.posSectors);
            for (const unsigned long long directory :
                 {extent.header().getGrainDirectoryOffsetSectors(),
                  extent.header().getRedundantGrainDirectoryOffsetSectors()})
                for (int64 t = 0; t < tableCount; ++t) {
                    const int64 position =
                        extent.fileUInt32(static_cast<int64>(directory) * 512 + t * 4) * 512LL;
                    const Bytes table = extent.file(position, 2048);
                    ASSERT_EQ(std::memcmp(table.getData(),
                                          &expectedEntries[static_cast<std::size_t>(t * 512)], 2048),
                              0)
                        << t;
                }
        }
    }

    TArray<Modelled> m_modelled;
    std::mt19937 m_random{20240601};
    int64 m_place = 0;
};

TEST_P(CVMDKGrainDirectoryModelTest, AgreesWithItBeforeAndAfterOpeningAnew) {
    CLogRecorder log;
    for (int round = 0; round < 2; ++round) {
        ASSERT_NO_FATAL_FAILURE(changeAndLookUp(400));
        for (Modelled& modelled : m_modelled)
            modelled.extent->close();
        ASSERT_NO_FATAL_FAILURE(compareFiles());
        open(round == 0 ? IIOStream::Access_ReadWrite : IIOStream::Access_Read);
        ASSERT_NO_FATAL_FAILURE(compareAll());
    }
    EXPECT_THAT(log.takeEntries(), ::testing::IsEmpty());
}

TArray<Parameters> makeParameters() {
    TArray<Parameters> all;
    for (const int cacheLimit : {0, 1, 31, 32, 33, 1024})
        for (const bool compressed : {false, true})
            all.push_back({cacheLimit, compressed, compressed, 1});
    for (const int cacheLimit : {1, 33, 64})
        all.push_back({cacheLimit, true, false, 2});
    return all;
}

INSTANTIATE_TEST_SUITE_P(Caches, CVMDKGrainDirectoryModelTest, ::testing::ValuesIn(makeParameters()),
                         [](const auto& test) {
                             return std::string("of") + std::to_string(test.param.cacheLimit) +
                                    (test.param.compressed ? "Compressed" : "Plain") +
                                    (test.param.extents > 1 ? "Shared" : "");
                         });

} // namespace
} // namespace tessel::test
