#include "tessel/CVMDKGrainAllocator.h"

#include "CLogRecorder.h"
#include "CTestExtent.h"
#include "ErrorMatchers.h"
#include "lum/CIOError.h"

#include <gmock/gmock.h>

#include <memory>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Info = CTestExtent::Info;
using Operation = CRecordingStream::Operation;

/// Slots in an extent file, plain (grains of 8 sectors unless a test says otherwise) or compressed.
class CVMDKGrainAllocatorTest : public ::testing::Test {
protected:
    void make(bool compressed, int64 grainSizeSectors = 8, int64 grainCount = 1024) {
        m_extent = std::make_unique<CTestExtent>(CTestExtent::Settings{
            .compressed = compressed, .grainCount = grainCount, .grainSizeSectors = grainSizeSectors});
    }
    void makeAndOpen(bool compressed) {
        make(compressed);
        m_extent->open();
    }
    int64 allocate(int64 grainIndex, const Bytes& data, int slotSizeSectors) {
        m_extent->recorder().takeOperations();
        return m_extent->allocator().allocNewGrain(grainIndex, data.getData(),
                                                   static_cast<int>(data.getUsed()), slotSizeSectors);
    }
    int64 allocateFromSlice(int64 grainIndex, const Bytes& data, int slotSizeSectors) {
        m_extent->recorder().takeOperations();
        return m_extent->allocator().allocNewGrainKeepBuffer(
            grainIndex, TConstBufferSlice<unsigned char>(data), slotSizeSectors);
    }
    TArray<Operation> takeWrites() {
        TArray<Operation> writes;
        for (const Operation& operation : m_extent->recorder().takeOperations())
            if (operation.kind == CRecordingStream::Write)
                writes.push_back(operation);
        return writes;
    }
    /// An allocator of another kind over the open extent.
    P<CVMDKGrainAllocator> makeAllocator(const Bytes& trail,
                                         IIOStream::Access access = IIOStream::Access_ReadWrite) {
        return new CVMDKGrainAllocator(&m_extent->stream(), access, 8, 1, &m_extent->directory(), trail);
    }
    Bytes fileEnd(int64 count) const { return m_extent->file(m_extent->fileLength() - count, count); }

    std::unique_ptr<CTestExtent> m_extent;
};

// --- Slots ---

TEST_F(CVMDKGrainAllocatorTest, SlotsOfAnUncompressedExtentBeginAtMultiplesOfTheGrainSize) {
    make(false, 128);
    m_extent->setFileLength(100 * 512);
    m_extent->open();
    const Bytes grain = patternBytes(128 * 512);
    EXPECT_EQ(allocate(0, grain, 128), 128);
    EXPECT_THAT(takeWrites(), ElementsAre(Operation{CRecordingStream::Write, 100 * 512, 28 * 512},
                                          Operation{CRecordingStream::Write, 128 * 512, 128 * 512}));
    EXPECT_EQ(m_extent->file(100 * 512, 28 * 512), Bytes(28 * 512));
    EXPECT_EQ(m_extent->file(128 * 512, 128 * 512), grain);
    EXPECT_EQ(m_extent->info(0), (Info{128, 128}));
    EXPECT_EQ(m_extent->fileLength(), 256 * 512);

    EXPECT_EQ(allocate(1, grain, 128), 256);
    EXPECT_THAT(takeWrites(), ElementsAre(Operation{CRecordingStream::Write, 256 * 512, 128 * 512}))
        << "nothing to fill up";
}

TEST_F(CVMDKGrainAllocatorTest, SlotsMayBeAlignedToMoreThanTwoGrains) {
    makeAndOpen(false);
    const int64 overhead = m_extent->overheadBytes();
    const P<CVMDKGrainAllocator> allocator(new CVMDKGrainAllocator(
        &m_extent->stream(), IIOStream::Access_ReadWrite, 8, 40, &m_extent->directory(), Bytes()));
    const Bytes grain = patternBytes(4096);
    ASSERT_LT(overhead, 40 * 512);
    EXPECT_EQ(allocator->allocNewGrain(0, grain.getData(), 4096, 8), 40);
    EXPECT_EQ(allocator->allocNewGrain(1, grain.getData(), 4096, 8), 80);
    EXPECT_EQ(m_extent->file(overhead, 40 * 512 - overhead), Bytes(40 * 512 - overhead));
    EXPECT_EQ(m_extent->file(40 * 512, 4096), grain);
    EXPECT_EQ(m_extent->file(48 * 512, 32 * 512), Bytes(32 * 512));
    EXPECT_EQ(m_extent->file(80 * 512, 4096), grain);
    EXPECT_EQ(m_extent->fileLength(), 88 * 512);
}

TEST_F(CVMDKGrainAllocatorTest, SlotOfACompressedExtentIsFilledUpWithZeros) {
    makeAndOpen(true);
    const int64 start = m_extent->overheadBytes() / 512;
    const Bytes data = patternBytes(700);
    EXPECT_EQ(allocate(3, data, 2), start) << "where the trail was";
    EXPECT_EQ(m_extent->file(start * 512, 700), data);
    EXPECT_EQ(m_extent->file(start * 512 + 700, 324), Bytes(324));
    EXPECT_EQ(m_extent->info(3), (Info{start, 2}));
    EXPECT_EQ(allocate(4, data, 3), start + 2);
    EXPECT_EQ(m_extent->file(start * 512 + 1024 + 700, 836), Bytes(836));
    EXPECT_EQ(m_extent->info(4), (Info{start + 2, 3}));
    EXPECT_EQ(allocate(3, data, 2), start + 5) << "slots are never used again";
    EXPECT_EQ(m_extent->info(3), (Info{start + 5, 2}));
}

TEST_F(CVMDKGrainAllocatorTest, SlotMayBeMuchLargerThanItsData) {
    makeAndOpen(true);
    const int64 start = m_extent->overheadBytes() / 512;
    allocate(0, bytesOf("abc"), 40); // padding of more than the two grains that are written at once
    EXPECT_EQ(m_extent->file(start * 512, 3), bytesOf("abc"));
    EXPECT_EQ(m_extent->file(start * 512 + 3, 40 * 512 - 3), Bytes(40 * 512 - 3));
    EXPECT_EQ(allocate(1, bytesOf("def"), 1), start + 40);
}

TEST_F(CVMDKGrainAllocatorTest, SliceIsStoredLikeABuffer) {
    makeAndOpen(true);
    const Bytes data = patternBytes(1500);
    const int64 sector = m_extent->overheadBytes() / 512;
    m_extent->recorder().takeOperations();
    EXPECT_EQ(m_extent->allocator().allocNewGrainKeepBuffer(
                  7, TConstBufferSlice<unsigned char>(data, 100, 1300), 3),
              sector);
    EXPECT_EQ(m_extent->file(sector * 512, 1300), slice(data, 100, 1300));
    EXPECT_EQ(m_extent->file(sector * 512 + 1300, 236), Bytes(236));
    EXPECT_EQ(m_extent->info(7), (Info{sector, 3}));
}

TEST_F(CVMDKGrainAllocatorTest, FileThatIsNoWholeNumberOfSectorsIsFilledUpFirst) {
    make(false);
    m_extent->setFileLength(m_extent->overheadBytes() + 1);
    m_extent->open();
    EXPECT_EQ(allocate(0, patternBytes(4096), 8), m_extent->overheadBytes() / 512 + 8);
}

// --- What is refused ---

TEST_F(CVMDKGrainAllocatorTest, SlotSmallerThanItsDataIsRefused) {
    makeAndOpen(true);
    struct Row {
        int64 dataSize;
        int slotSizeSectors;
        const char* slotBytes;
    };
    for (const Row& row : {Row{513, 1, "512"}, Row{1, 0, "0"}, Row{4097, 8, "4096"}, Row{1, -1, "-512"}}) {
        const Bytes data(row.dataSize);
        const String message = String("Slot size is smaller than grain data size (slot size: ") +
                               row.slotBytes + " bytes, grain data size: " + toDecimal(row.dataSize) +
                               " bytes)";
        EXPECT_INVALID_ARG_ERROR(allocate(0, data, row.slotSizeSectors), "CVMDKGrainAllocator::allocNewGrain",
                                 message);
        EXPECT_INVALID_ARG_ERROR(allocateFromSlice(0, data, row.slotSizeSectors),
                                 "CVMDKGrainAllocator::allocNewGrain", message);
        EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty());
    }
}

TEST_F(CVMDKGrainAllocatorTest, AllocatingWithoutWriteAccessIsRefused) {
    make(true);
    m_extent->open(IIOStream::Access_Read);
    EXPECT_LUM_ERROR(allocate(0, Bytes(512), 1), CError, -1,
                     "Internal error: CVMDKGrainAllocator::allocNewGrain was called, but the grain allocator "
                     "was not opened for writing.");
    EXPECT_INVALID_ARG_ERROR(allocate(0, Bytes(513), 1), "CVMDKGrainAllocator::allocNewGrain",
                             "Slot size is smaller than grain data size (slot size: 512 bytes, grain data "
                             "size: 513 bytes)");
}

TEST_F(CVMDKGrainAllocatorTest, SlotBehindSector2To32IsRefusedBeforeAnythingIsWritten) {
    make(false);
    constexpr int64 limit = (int64{1} << 32) * 512;
    m_extent->setFileLength(limit - 8 * 512);
    m_extent->open();
    const Bytes grain = patternBytes(4096);
    EXPECT_EQ(allocate(0, grain, 8), (int64{1} << 32) - 8) << "the last slot that an entry can name";
    EXPECT_EQ(m_extent->info(0), (Info{(int64{1} << 32) - 8, 8}));

    const int64 written = m_extent->fileLength();
    EXPECT_EQ(written, limit);
    for (const bool fromSlice : {false, true}) {
        EXPECT_LUM_ERROR(fromSlice ? allocateFromSlice(1, grain, 8) : allocate(1, grain, 8), CIOError, 3,
                         "VMDK grain cannot be stored: the extent file would grow beyond 2 TiB (position: "
                         "2199023255552, slot size: 8 sectors).",
                         {{"uri", m_extent->uriText()}, {"position", "2199023255552"}, {"slotSize", "8"}});
        EXPECT_THAT(takeWrites(), IsEmpty());
    }
    EXPECT_EQ(m_extent->fileLength(), written);
    EXPECT_EQ(m_extent->info(1), (Info{0, 0}));
    m_extent->close();
    m_extent->open(IIOStream::Access_Read);
    EXPECT_EQ(m_extent->info(0), (Info{(int64{1} << 32) - 8, 8}));
}

TEST_F(CVMDKGrainAllocatorTest, SlotThatWouldBeginBeforeButEndBehindSector2To32IsRefused) {
    make(true);
    constexpr int64 start = ((int64{1} << 32) - 2) * 512;
    m_extent->setFileLength(start);
    m_extent->openDirectory();
    const P<CVMDKGrainAllocator> allocator = makeAllocator(Bytes());
    EXPECT_LUM_ERROR(allocator->allocNewGrain(0, "abc", 3, 3), CIOError, 3,
                     "VMDK grain cannot be stored: the extent file would grow beyond 2 TiB (position: " +
                         toDecimal(start) + ", slot size: 3 sectors).",
                     {{"uri", m_extent->uriText()}, {"position", toDecimal(start)}, {"slotSize", "3"}});
    EXPECT_EQ(m_extent->fileLength(), start);
    EXPECT_EQ(allocator->allocNewGrain(0, "abc", 3, 2), (int64{1} << 32) - 2);
}

TEST_F(CVMDKGrainAllocatorTest, SlotSizeThatCannotBeRecordedIsRefusedBeforeAnythingIsWritten) {
    makeAndOpen(true);
    const int64 start = m_extent->overheadBytes();
    EXPECT_LUM_ERROR(allocate(0, bytesOf("abc"), 0x10000), CIOError, 3,
                     "VMDK grain cannot be stored: its slot is larger than 65535 sectors (position: " +
                         toDecimal(start) + ", slot size: 65536 sectors).",
                     {{"uri", m_extent->uriText()}, {"position", toDecimal(start)}, {"slotSize", "65536"}});
    EXPECT_THAT(takeWrites(), IsEmpty());
    EXPECT_EQ(m_extent->info(0), (Info{0, 0}));
    EXPECT_EQ(allocate(0, bytesOf("abc"), 0xFFFF), start / 512);
    EXPECT_EQ(m_extent->info(0), (Info{start / 512, 0xFFFF}));
}

TEST_F(CVMDKGrainAllocatorTest, GrainThatHasNoTableIsRefusedBeforeAnythingIsWritten) {
    make(false);
    const auto directory = static_cast<int64>(m_extent->header().getGrainDirectoryOffsetSectors()) * 512;
    const Bytes grain = patternBytes(4096);
    const CProps::Entry uri{"uri", m_extent->uriText()};
    const auto refusesAll = [&](auto expect) {
        m_extent->open();
        const int64 length = m_extent->fileLength();
        expect();
        EXPECT_THAT(takeWrites(), IsEmpty());
        EXPECT_EQ(m_extent->fileLength(), length);
    };
    refusesAll([&] {
        EXPECT_INVALID_ARG_ERROR(allocate(1024, grain, 8), "CVMDKGrainDirectory::getGrainTable",
                                 "invalid table index: 2", {uri});
        EXPECT_INVALID_ARG_ERROR(allocate(-512, grain, 8), "CVMDKGrainDirectory::getGrainTable",
                                 "invalid table index: -1", {uri});
        EXPECT_INVALID_ARG_ERROR(allocate(-1, grain, 8), "CVMDKGrainTable::getGrainInfo",
                                 "Invalid grain index: -1", {uri});
    });
    m_extent->patchUInt32(directory + 4, 0);
    refusesAll([&] {
        EXPECT_LUM_ERROR(allocate(512, grain, 8), CIOError, 5,
                         "VMDK grain table 1 was never allocated (sector: 0).",
                         {uri, {"tableIndex", "1"}, {"tablePosition", "0"}});
    });
    m_extent->patchUInt32(directory + 4, 0x7FFFFFFF);
    refusesAll([&] {
        EXPECT_LUM_ERROR(allocate(512, grain, 8), CIOError, 5,
                         "VMDK grain table 1 lies behind the end of the file (sector: 2147483647).",
                         {uri, {"tableIndex", "1"}, {"tablePosition", "2147483647"}});
    });
}

TEST_F(CVMDKGrainAllocatorTest, SlotSizeThatTheTableRefusesLeavesTheGrainAsItWas) {
    makeAndOpen(false);
    const Bytes grain = patternBytes(4096);
    EXPECT_INVALID_ARG_ERROR(
        allocate(0, grain, 9), "CVMDKGrainTable::setGrainInfo",
        "Invalid grain slot size - it must equal the grain size (slot size: 9, grain size: 8)",
        {{"uri", m_extent->uriText()}});
    EXPECT_EQ(m_extent->info(0), (Info{0, 0}));
}

// --- The trail ---

TEST_F(CVMDKGrainAllocatorTest, NewSlotsTakeThePlaceOfTheTrailAndAFlushPutsItBehindThem) {
    makeAndOpen(true);
    const Bytes trail = m_extent->trail();
    ASSERT_EQ(trail.getUsed(), 1536);
    ASSERT_EQ(fileEnd(1536), trail);
    m_extent->recorder().takeOperations();
    m_extent->allocator().flushChangesToStream();
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty()) << "it is there";

    const int64 start = m_extent->overheadBytes();
    allocate(0, patternBytes(512), 1);
    EXPECT_EQ(m_extent->file(start, 512), patternBytes(512));
    m_extent->allocator().flushChangesToStream();
    EXPECT_EQ(m_extent->file(start + 512, 1536), trail);
    EXPECT_EQ(m_extent->fileLength(), start + 512 + 1536);
    m_extent->recorder().takeOperations();
    m_extent->allocator().flushChangesToStream();
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty()) << "once is enough";

    EXPECT_EQ(allocate(1, patternBytes(1024, 9), 2), start / 512 + 1);
    m_extent->allocator().flushChangesToStream();
    EXPECT_EQ(m_extent->file(start + 512, 1024), patternBytes(1024, 9));
    EXPECT_EQ(fileEnd(1536), trail);
    EXPECT_EQ(m_extent->fileLength(), start + 3 * 512 + 1536);
}

TEST_F(CVMDKGrainAllocatorTest, TrailThatIsThereIsFoundAgain) {
    makeAndOpen(true);
    allocate(0, patternBytes(512), 1);
    const int64 end = m_extent->overheadBytes() + 512;
    m_extent->flush();
    CLogRecorder log;
    m_extent->open();
    EXPECT_EQ(allocate(1, patternBytes(512), 1), end / 512);
    EXPECT_THAT(log.takeEntries(), IsEmpty());
}

TEST_F(CVMDKGrainAllocatorTest, EndThatIsNotTheTrailIsKeptAndTheTrailWrittenBehindIt) {
    const CLogRecorder::Entry warning{
        ILogSink::Level_Warning,
        "VMDK trail data is not what we expected. Assuming that it is not trail data - we won't overwrite "
        "it.",
        String(), String()};
    for (const int64 spoiledByte : {0, 700, 1535}) {
        make(true);
        const int64 length = m_extent->fileLength();
        Bytes end = m_extent->trail();
        end[spoiledByte] ^= 1;
        m_extent->patchFile(length - 1536, end);
        CLogRecorder log;
        m_extent->open();
        EXPECT_THAT(log.takeEntries(), ElementsAre(warning));
        m_extent->allocator().flushChangesToStream();
        EXPECT_EQ(m_extent->file(length - 1536, 1536), end) << "unknown bytes are nobody's to overwrite";
        EXPECT_EQ(m_extent->fileLength(), length + 1536);
        EXPECT_EQ(fileEnd(1536), m_extent->trail());
        EXPECT_EQ(allocate(0, patternBytes(512), 1), length / 512);
        EXPECT_EQ(m_extent->file(length - 1536, 1536), end);
    }
}

TEST_F(CVMDKGrainAllocatorTest, ReaderLeavesAnEndThatIsNotTheTrail) {
    make(true);
    const int64 length = m_extent->fileLength();
    m_extent->patchFile(length - 1, bytesOf({1}));
    CLogRecorder log;
    m_extent->open(IIOStream::Access_Read);
    EXPECT_EQ(log.takeEntries().size(), 1u);
    m_extent->recorder().takeOperations();
    m_extent->allocator().flushChangesToStream();
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty());
    m_extent->close();
    EXPECT_EQ(m_extent->fileLength(), length);
}

TEST_F(CVMDKGrainAllocatorTest, FileShorterThanTheTrailHasNone) {
    makeAndOpen(true);
    const int64 length = m_extent->fileLength();
    CLogRecorder log;
    const Bytes trail = patternBytes(length + 1);
    {
        const P<CVMDKGrainAllocator> allocator = makeAllocator(trail);
        EXPECT_EQ(log.takeEntries().size(), 1u);
    }
    EXPECT_EQ(m_extent->fileLength(), length + trail.getUsed()) << "the destructor flushes";
    EXPECT_EQ(m_extent->file(length, trail.getUsed()), trail);
}

TEST_F(CVMDKGrainAllocatorTest, LookingForTheTrailLeavesThePosition) {
    makeAndOpen(true);
    m_extent->stream().seek(123);
    const P<CVMDKGrainAllocator> allocator = makeAllocator(m_extent->trail());
    EXPECT_EQ(m_extent->stream().getPosition(), 123);
}

TEST_F(CVMDKGrainAllocatorTest, WithoutATrailAFlushWritesNothing) {
    makeAndOpen(false);
    allocate(0, patternBytes(4096), 8);
    m_extent->recorder().takeOperations();
    m_extent->allocator().flushChangesToStream();
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty());
}

TEST_F(CVMDKGrainAllocatorTest, DestructorWritesTheTrail) {
    makeAndOpen(true);
    allocate(0, patternBytes(512), 1);
    m_extent->close();
    EXPECT_EQ(fileEnd(1536), m_extent->trail());
}

} // namespace
} // namespace tessel::test
