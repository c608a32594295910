// Several whole grains at once, and files that end before their metadata do.

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
using ::testing::IsEmpty;
using Info = CTestExtent::Info;
using Operation = CRecordingStream::Operation;

class CVMDKGrainAllocatorRunTest : public ::testing::Test {
protected:
    void make(int64 grainSizeSectors = 8, bool compressed = false) {
        m_extent = std::make_unique<CTestExtent>(
            CTestExtent::Settings{.compressed = compressed, .grainSizeSectors = grainSizeSectors});
    }
    int64 allocate(int64 firstGrainIndex, const Bytes& data) {
        m_extent->recorder().takeOperations();
        return m_extent->allocator().allocNewGrainRun(firstGrainIndex, data.getData(),
                                                      static_cast<int>(data.getUsed() / grainBytes()));
    }
    TArray<Operation> takeWrites() {
        TArray<Operation> writes;
        for (const Operation& operation : m_extent->recorder().takeOperations())
            if (operation.kind == CRecordingStream::Write)
                writes.push_back(operation);
        return writes;
    }
    int64 grainBytes() const { return m_extent->grainBytes(); }
    int64 directoryByte(int64 tableIndex) const {
        return static_cast<int64>(m_extent->header().getGrainDirectoryOffsetSectors()) * 512 + 4 * tableIndex;
    }
    /// An allocator over the open extent, of which metadata take more than the file has.
    P<CVMDKGrainAllocator> makeAllocator(const Bytes& trail, int64 metadataEndSectors,
                                         IIOStream::Access access = IIOStream::Access_ReadWrite) {
        return new CVMDKGrainAllocator(&m_extent->stream(), access, 8, 8, &m_extent->directory(), trail,
                                       metadataEndSectors);
    }

    std::unique_ptr<CTestExtent> m_extent;
};

} // namespace

// --- Runs ---

TEST_F(CVMDKGrainAllocatorRunTest, SlotsLieNextToEachOtherAndAreWrittenAtOnce) {
    make(128);
    m_extent->setFileLength(100 * 512);
    m_extent->open();
    const Bytes data = patternBytes(3 * grainBytes());
    EXPECT_EQ(allocate(7, data), 128);
    EXPECT_THAT(takeWrites(), ElementsAre(Operation{CRecordingStream::Write, 100 * 512, 28 * 512},
                                          Operation{CRecordingStream::Write, 128 * 512, 3 * 128 * 512}));
    EXPECT_EQ(m_extent->file(100 * 512, 28 * 512), Bytes(28 * 512)) << "what aligns the first slot";
    EXPECT_EQ(m_extent->file(128 * 512, data.getUsed()), data);
    for (int64 i = 0; i < 3; ++i)
        EXPECT_EQ(m_extent->info(7 + i), (Info{128 + i * 128, 128}));
    EXPECT_EQ(m_extent->info(6), (Info{0, 0}));
    EXPECT_EQ(m_extent->info(10), (Info{0, 0}));

    EXPECT_EQ(allocate(20, patternBytes(grainBytes())), 4 * 128) << "the next one follows";
    EXPECT_THAT(takeWrites(), ElementsAre(Operation{CRecordingStream::Write, 4 * 128 * 512, 128 * 512}));
    EXPECT_EQ(m_extent->allocator().getDataEnd(), 5 * 128 * 512);
}

TEST_F(CVMDKGrainAllocatorRunTest, RunMayReachIntoTheNextTable) {
    make();
    m_extent->open();
    const int64 start = allocate(510, patternBytes(4 * 4096));
    for (int64 i = 0; i < 4; ++i)
        EXPECT_EQ(m_extent->info(510 + i), (Info{start + i * 8, 8}));
}

TEST_F(CVMDKGrainAllocatorRunTest, RunThatDoesNotFitBelowSector2To32IsRefusedWhole) {
    make();
    constexpr int64 limit = (int64{1} << 32) * 512;
    m_extent->setFileLength(limit - 2 * 4096);
    m_extent->open();
    const Bytes data = patternBytes(3 * 4096);
    EXPECT_LUM_ERROR(allocate(0, data), CIOError, 3,
                     "VMDK grain cannot be stored: the extent file would grow beyond 2 TiB (position: "
                     "2199023255552, slot size: 8 sectors).",
                     {{"uri", m_extent->uriText()}, {"position", "2199023255552"}, {"slotSize", "8"}});
    EXPECT_THAT(takeWrites(), IsEmpty());
    EXPECT_EQ(m_extent->fileLength(), limit - 2 * 4096);
    for (int64 i = 0; i < 3; ++i)
        EXPECT_EQ(m_extent->info(i), (Info{0, 0}));

    EXPECT_EQ(allocate(0, patternBytes(2 * 4096)), (int64{1} << 32) - 16) << "what fits is taken";
}

TEST_F(CVMDKGrainAllocatorRunTest, RunThatReachesATableThatIsNotThereIsRefusedWhole) {
    make();
    const int64 good = m_extent->fileUInt32(directoryByte(1));
    const CProps::Entry uri{"uri", m_extent->uriText()};
    struct Row {
        int64 tablePosition;
        const char* problem;
    };
    for (const Row& row :
         {Row{0, "was never allocated"}, Row{0x7FFFFFFF, "lies behind the end of the file"}}) {
        m_extent->patchUInt32(directoryByte(1), static_cast<uint32>(row.tablePosition));
        m_extent->open();
        const int64 length = m_extent->fileLength();
        const String sector = toDecimal(row.tablePosition);
        EXPECT_LUM_ERROR(allocate(510, patternBytes(3 * 4096)), CIOError, 5,
                         String("VMDK grain table 1 ") + row.problem + " (sector: " + sector + ").",
                         {uri, {"tableIndex", "1"}, {"tablePosition", sector}});
        EXPECT_THAT(takeWrites(), IsEmpty());
        EXPECT_EQ(m_extent->fileLength(), length);
        EXPECT_EQ(m_extent->info(510), (Info{0, 0}));
        EXPECT_EQ(m_extent->info(511), (Info{0, 0}));
    }
    m_extent->patchUInt32(directoryByte(1), static_cast<uint32>(good));
    m_extent->open();
    EXPECT_INVALID_ARG_ERROR(allocate(1022, patternBytes(3 * 4096)), "CVMDKGrainDirectory::getGrainTable",
                             "invalid table index: 2", {uri});
    EXPECT_THAT(takeWrites(), IsEmpty());
    EXPECT_EQ(m_extent->info(1022), (Info{0, 0}));
}

TEST_F(CVMDKGrainAllocatorRunTest, RunNeedsWriteAccess) {
    make();
    m_extent->open(IIOStream::Access_Read);
    EXPECT_LUM_ERROR(allocate(0, patternBytes(2 * 4096)), CError, -1,
                     "Internal error: CVMDKGrainAllocator::allocNewGrain was called, but the grain allocator "
                     "was not opened for writing.");
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty());
}

TEST_F(CVMDKGrainAllocatorRunTest, FailedWriteLeavesAllGrainsAsTheyWereAndTheRoomForTheNext) {
    for (const FaultRule::Kind kind : {FaultRule::Refused, FaultRule::Short, FaultRule::FullDisk}) {
        make();
        m_extent->open();
        const int64 first = allocate(0, patternBytes(2 * 4096, 9));
        m_extent->flush();
        m_extent->faults().addRule({.operation = FaultRule::Write, .kind = kind});
        EXPECT_THROW(allocate(1, patternBytes(3 * 4096)), CIOError);
        m_extent->endFaults();
        EXPECT_EQ(m_extent->info(0), (Info{first, 8}));
        EXPECT_EQ(m_extent->info(1), (Info{first + 8, 8}));
        EXPECT_EQ(m_extent->info(2), (Info{0, 0}));
        EXPECT_EQ(m_extent->info(3), (Info{0, 0}));
        EXPECT_EQ(m_extent->file(first * 512, 2 * 4096), patternBytes(2 * 4096, 9));

        EXPECT_EQ(allocate(1, patternBytes(3 * 4096, 5)), first + 16);
        EXPECT_EQ(m_extent->file((first + 16) * 512, 3 * 4096), patternBytes(3 * 4096, 5));
    }
}

// --- Files that end within their metadata ---

TEST_F(CVMDKGrainAllocatorRunTest, FileThatEndsWithinItsMetadataTakesNoSlot) {
    make();
    m_extent->open();
    const int64 length = m_extent->fileLength();
    const Bytes before = m_extent->file();
    const Bytes grain = patternBytes(4096);
    P<CVMDKGrainAllocator> allocator = makeAllocator(Bytes(), length / 512 + 1);
    m_extent->recorder().takeOperations();
    const auto expectRefused = [&](const std::function<void()>& action) {
        EXPECT_TRUE(
            throwsError(action, typeid(CIOError), 5,
                        "VMDK grain cannot be stored: the extent file ends within its metadata (file size: " +
                            toDecimal(length) + " bytes, metadata: " + toDecimal(length + 512) + " bytes).",
                        {{"uri", m_extent->uriText()},
                         {"fileSize", toDecimal(length)},
                         {"metadataSize", toDecimal(length + 512)}}));
        EXPECT_THAT(takeWrites(), IsEmpty());
    };
    expectRefused([&] { allocator->allocNewGrain(0, grain.getData(), 4096, 8); });
    expectRefused([&] { allocator->allocNewGrainKeepBuffer(0, TConstBufferSlice<unsigned char>(grain), 8); });
    expectRefused([&] { allocator->allocNewGrainRun(0, grain.getData(), 1); });
    allocator = nullptr;
    EXPECT_EQ(m_extent->file(), before);
    EXPECT_EQ(m_extent->info(0), (Info{0, 0}));

    allocator = makeAllocator(Bytes(), length / 512);
    EXPECT_EQ(allocator->allocNewGrain(0, grain.getData(), 4096, 8), length / 512)
        << "one that ends with them does";
    allocator = makeAllocator(Bytes(), 1 << 20, IIOStream::Access_Read);
    EXPECT_LUM_ERROR(allocator->allocNewGrain(0, grain.getData(), 4096, 8), CError, -1,
                     "Internal error: CVMDKGrainAllocator::allocNewGrain was called, but the grain allocator "
                     "was not opened for writing.");
}

TEST_F(CVMDKGrainAllocatorRunTest, FileThatEndsWithinItsMetadataTakesNoTrail) {
    make(8, true);
    m_extent->openDirectory();
    const Bytes before = m_extent->file();
    CLogRecorder log;
    {
        const P<CVMDKGrainAllocator> allocator =
            makeAllocator(patternBytes(1536), before.getUsed() / 512 + 1);
        allocator->flushChangesToStream();
    }
    EXPECT_EQ(m_extent->file(), before);
    EXPECT_EQ(log.takeEntries().size(), 1u) << "that the end is not the trail";
    makeAllocator(patternBytes(1536), before.getUsed() / 512);
    EXPECT_EQ(m_extent->fileLength(), before.getUsed() + 1536) << "one that ends with them does";
}

TEST_F(CVMDKGrainAllocatorRunTest, FileThatIsLeftAloneGetsNoTrail) {
    make(8, true);
    m_extent->openDirectory();
    const Bytes before = m_extent->file();
    CLogRecorder log;
    {
        const P<CVMDKGrainAllocator> allocator = makeAllocator(patternBytes(1536), 0);
        allocator->leaveFileAlone();
        allocator->flushChangesToStream();
    }
    EXPECT_EQ(m_extent->file(), before);
    EXPECT_EQ(log.takeEntries().size(), 1u);
}

} // namespace tessel::test
