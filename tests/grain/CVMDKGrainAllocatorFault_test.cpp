#include "CLogRecorder.h"
#include "CTestExtent.h"
#include "ErrorMatchers.h"
#include "lum/CIOError.h"
#include "tessel/CVMDKGrainAllocator.h"

#include <gmock/gmock.h>

#include <memory>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using Info = CTestExtent::Info;

struct Parameters {
    bool compressed;
    bool buffered;
    FaultRule::Kind kind;
    bool always;
};

/// Allocations on a file whose operations fail, each in turn.
class CVMDKGrainAllocatorFaultTest : public ::testing::TestWithParam<Parameters> {
protected:
    void make() {
        m_extent = std::make_unique<CTestExtent>(
            CTestExtent::Settings{.compressed = GetParam().compressed, .buffered = GetParam().buffered});
        m_extent->open();
    }
    /// Less than its slot, so that every allocation of a compressed extent pads.
    Bytes grainData(unsigned int seed) const {
        return patternBytes(GetParam().compressed ? 3000 : 4096, seed);
    }
    void allocate(int64 grainIndex, unsigned int seed) {
        const Bytes data = grainData(seed);
        m_extent->allocator().allocNewGrain(grainIndex, data.getData(), static_cast<int>(data.getUsed()), 8);
    }
    Bytes slotData(int64 grainIndex) const {
        return m_extent->file(m_extent->info(grainIndex).posSectors * 512, 4096);
    }
    Bytes expectedSlot(unsigned int seed) const {
        Bytes slot(4096);
        const Bytes data = grainData(seed);
        std::copy_n(data.getData(), data.getUsed(), slot.getData());
        return slot;
    }

    std::unique_ptr<CTestExtent> m_extent;
};

TEST_P(CVMDKGrainAllocatorFaultTest, GrainNeverPointsAtAPartialSlot) {
    bool reached = true;
    int nth = 1;
    for (; reached; ++nth) {
        make();
        allocate(0, 1);
        m_extent->flush();
        const Info first = m_extent->info(0);

        m_extent->faults().addRule({.kind = GetParam().kind, .nth = nth, .always = GetParam().always});
        bool seen = false;
        try {
            allocate(1, 2);
            allocate(0, 3); // moves
            m_extent->flush();
        } catch (const CIOError&) {
            seen = true;
        }
        reached = m_extent->faults().getHits() > 0;
        EXPECT_EQ(seen, reached) << nth;
        m_extent->endFaults();

        // Whatever an entry names is whole.
        for (const auto& [grainIndex, seed] : {std::pair<int64, unsigned int>{1, 2}, {0, 3}}) {
            const Info info = m_extent->info(grainIndex);
            if (info == Info{0, 0} || info == first)
                continue;
            EXPECT_EQ(slotData(grainIndex), expectedSlot(seed)) << nth;
        }
        EXPECT_EQ(m_extent->file(first.posSectors * 512, 4096), expectedSlot(1)) << nth;

        // It goes on as if nothing had been.
        allocate(2, 4);
        m_extent->flush();
        EXPECT_EQ(slotData(2), expectedSlot(4)) << nth;
        const TArray<Info> infos = {m_extent->info(0), m_extent->info(1), m_extent->info(2)};
        m_extent->close();
        CLogRecorder log;
        m_extent->open();
        EXPECT_THAT(log.takeEntries(), ::testing::IsEmpty()) << nth << ": the trail stands at the end";
        for (int64 i = 0; i < 3; ++i)
            EXPECT_EQ(m_extent->info(i), infos[static_cast<std::size_t>(i)]) << nth;
        EXPECT_EQ(slotData(2), expectedSlot(4)) << nth;
    }
    EXPECT_GE(nth, 6) << "operations that can fail";
}

INSTANTIATE_TEST_SUITE_P(Faults, CVMDKGrainAllocatorFaultTest,
                         ::testing::Values(Parameters{false, false, FaultRule::Refused, false},
                                           Parameters{true, false, FaultRule::Refused, false},
                                           Parameters{true, false, FaultRule::Short, false},
                                           Parameters{true, false, FaultRule::FullDisk, true},
                                           Parameters{false, false, FaultRule::Short, true},
                                           Parameters{false, true, FaultRule::Refused, false},
                                           Parameters{true, true, FaultRule::Short, false},
                                           Parameters{true, true, FaultRule::FullDisk, true}));

/// Single faults whose consequences are known to the byte.
class CVMDKGrainAllocatorSingleFaultTest : public ::testing::Test {
protected:
    CVMDKGrainAllocatorSingleFaultTest() { m_extent.open(); }

    void allocate(int64 grainIndex, const Bytes& data, int slotSizeSectors) {
        m_extent.allocator().allocNewGrain(grainIndex, data.getData(), static_cast<int>(data.getUsed()),
                                           slotSizeSectors);
    }
    void failWrite(int nth) { m_extent.faults().addRule({.operation = FaultRule::Write, .nth = nth}); }

    CTestExtent m_extent{{.compressed = true}};
    int64 m_start = m_extent.overheadBytes() / 512;
};

TEST_F(CVMDKGrainAllocatorSingleFaultTest, FailedDataLeaveTheDataEndWhereTheyBegan) {
    failWrite(1);
    EXPECT_THROW(allocate(0, patternBytes(700), 2), CIOError);
    m_extent.endFaults();
    EXPECT_EQ(m_extent.info(0), (Info{0, 0}));
    allocate(0, patternBytes(700, 5), 2);
    EXPECT_EQ(m_extent.info(0), (Info{m_start, 2}));
    EXPECT_EQ(m_extent.file(m_start * 512, 700), patternBytes(700, 5));
}

TEST_F(CVMDKGrainAllocatorSingleFaultTest, FailedPaddingLeavesTheDataAsDeadSpace) {
    failWrite(2);
    EXPECT_THROW(allocate(0, patternBytes(700), 2), CIOError);
    m_extent.endFaults();
    EXPECT_EQ(m_extent.info(0), (Info{0, 0}));
    allocate(0, patternBytes(700, 5), 2);
    EXPECT_EQ(m_extent.info(0), (Info{m_start + 2, 2}));
}

TEST_F(CVMDKGrainAllocatorSingleFaultTest, TableThatCannotBeReadLeavesNoSlotBehind) {
    const int64 length = m_extent.fileLength();
    m_extent.faults().addRule({.operation = FaultRule::Read});
    EXPECT_THROW(allocate(0, patternBytes(700), 2), CIOError);
    m_extent.endFaults();
    EXPECT_EQ(m_extent.fileLength(), length);
    allocate(0, patternBytes(700, 5), 2);
    EXPECT_EQ(m_extent.info(0), (Info{m_start, 2}));
}

TEST_F(CVMDKGrainAllocatorSingleFaultTest, TrailThatWasNotWrittenIsWrittenByTheNextFlush) {
    allocate(0, patternBytes(512), 1);
    failWrite(1);
    EXPECT_LUM_ERROR(m_extent.allocator().flushChangesToStream(), CIOError, 2,
                     "Cannot write to file: Injected fault",
                     {{"uri", m_extent.uriText()},
                      {"position", toDecimal((m_start + 1) * 512)},
                      {"bytesToWrite", "1536"}});
    m_extent.endFaults();
    m_extent.allocator().flushChangesToStream();
    EXPECT_EQ(m_extent.file((m_start + 1) * 512, 1536), m_extent.trail());
}

TEST_F(CVMDKGrainAllocatorSingleFaultTest, TrailIsWrittenAgainAfterAnAllocationThatFailed) {
    failWrite(1);
    EXPECT_THROW(allocate(0, patternBytes(2000), 4), CIOError);
    m_extent.endFaults();
    m_extent.patchFile(m_start * 512, patternBytes(1536)); // what the failed write may have left
    m_extent.allocator().flushChangesToStream();
    EXPECT_EQ(m_extent.file(m_start * 512, 1536), m_extent.trail());
}

TEST_F(CVMDKGrainAllocatorSingleFaultTest, DestructorReportsATrailThatItCannotWrite) {
    allocate(0, patternBytes(512), 1);
    m_extent.directory().flushChangesToStream();
    failWrite(1);
    CLogRecorder log;
    m_extent.close();
    EXPECT_THAT(log.takeEntries(),
                ElementsAre(CLogRecorder::Entry{
                    ILogSink::Level_Error,
                    "Exception ignored in the destructor of tessel::CVMDKGrainAllocator; data may be lost",
                    "Cannot write to file: Injected fault", String()}));
}

} // namespace
} // namespace tessel::test
