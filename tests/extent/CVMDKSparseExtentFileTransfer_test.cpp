// Transfers of many whole grains: how far a failed one came, and what is refused before it begins.

#include "CFakeDataProvider.h"
#include "CRecordingStream.h"
#include "ExtentFixture.h"

namespace tessel::test {
namespace {

constexpr int64 grainSize = 65536;
constexpr int64 grainCount = 12;
constexpr int failing = 5;

class CVMDKSparseExtentFileTransferTest : public ExtentTest, public ::testing::WithParamInterface<bool> {
protected:
    static Bytes oldContents() { return randomBytes(grainCount * grainSize, 1); }
    static Bytes newContents() { return randomBytes(grainCount * grainSize, 2); }

    void create() {
        createExtent({.compressed = GetParam(), .grainCount = grainCount, .grainSizeSectors = 128});
    }
    void createFull() {
        create();
        writeAt(*openExtent(), 0, oldContents());
    }
    static int64 slotOf(CVMDKSparseExtentFile& extent, int64 grain) {
        int64 position = 0;
        int64 size = 0;
        extent.getGrainDirectory().getGrainInfo(grain, position, size);
        return position * 512;
    }
    /// Every transfer that touches a byte of the file fails.
    void fail(FaultRule::Operation operation, int64 byte) {
        m_faults->addRule({.operation = operation,
                           .fileSuffix = "s001.vmdk",
                           .rangeStart = byte,
                           .rangeEnd = byte + 1,
                           .always = true});
    }
    /// After the faults; the stream tells once more of a write that failed.
    void recover(CVMDKSparseExtentFile& extent) {
        m_faults->clearRules();
        try {
            extent.flushChanges();
        } catch (const CIOError&) { // NOLINT(bugprone-empty-catch): as expected
        }
        extent.flushChanges();
    }
    /// A compressed grain is written when the next one is opened.
    static int64 stopOfWriteThatFailsAt(int64 grain) { return (grain + (GetParam() ? 1 : 0)) * grainSize; }

    static Bytes overwritten(Bytes bytes, int64 offset, const Bytes& piece) {
        std::copy_n(piece.getData(), piece.getUsed(), bytes.getData() + offset);
        return bytes;
    }
};

std::string kindOf(const ::testing::TestParamInfo<bool>& info) {
    return info.param ? "Compressed" : "Plain";
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKSparseExtentFileTransferTest, ::testing::Bool(), kindOf);

// --- How far it came ---

TEST_P(CVMDKSparseExtentFileTransferTest, ReadThatFailsStandsAtTheGrainThatFailed) {
    createFull();
    const auto extent = openExtent();
    for (const int64 start : {int64{0}, grainSize, 2 * grainSize + 100}) {
        fail(FaultRule::Read, slotOf(*extent, failing) + 100);
        Bytes data(grainCount * grainSize - start);
        extent->seek(start);
        const auto error =
            catchError([&] { extent->read(data.getData(), static_cast<int>(data.getUsed())); });
        ASSERT_TRUE(error);
        EXPECT_EQ(error->getMessage(), "Cannot read from file: Injected fault");
        EXPECT_EQ(extent->getPosition(), failing * grainSize);
        const int64 moved = failing * grainSize - start;
        EXPECT_EQ(slice(data, 0, moved), slice(oldContents(), start, moved));
        m_faults->clearRules();

        const int64 rest = data.getUsed() - moved;
        extent->read(data.getData() + moved, static_cast<int>(rest));
        EXPECT_EQ(slice(data, moved, rest), slice(oldContents(), failing * grainSize, rest));
    }
}

TEST_P(CVMDKSparseExtentFileTransferTest, WriteIntoSlotsThatFailsStandsBehindWhatIsWritten) {
    createFull();
    const auto extent = openExtent();
    fail(FaultRule::Write, slotOf(*extent, failing) + 100);
    const Bytes fresh = newContents();
    extent->seek(grainSize);
    EXPECT_THROW(extent->write(fresh.getData() + grainSize, static_cast<int>(10 * grainSize)), CIOError);
    const int64 stop = extent->getPosition();
    EXPECT_EQ(stop, stopOfWriteThatFailsAt(failing));
    recover(*extent);
    EXPECT_EQ(readAt(*extent, grainSize, stop - grainSize), slice(fresh, grainSize, stop - grainSize));
    EXPECT_EQ(readAt(*extent, 6 * grainSize, 6 * grainSize),
              slice(oldContents(), 6 * grainSize, 6 * grainSize));

    extent->seek(stop);
    extent->write(fresh.getData() + stop, static_cast<int>(grainCount * grainSize - stop));
    EXPECT_EQ(readAt(*extent, grainSize, 11 * grainSize), slice(fresh, grainSize, 11 * grainSize));
}

TEST_P(CVMDKSparseExtentFileTransferTest, WriteOfNewGrainsThatFailsStandsBehindWhatIsWritten) {
    create();
    const auto extent = openExtent();
    const Bytes fresh = newContents();
    const int64 start = 512 * int64{loadNumber(Field_Overhead)};
    // Within the slot of the sixth grain that is written.
    fail(FaultRule::Write, start + 5 * grainSize + grainSize / 2);
    extent->seek(0);
    EXPECT_THROW(extent->write(fresh.getData(), static_cast<int>(fresh.getUsed())), CIOError);
    const int64 stop = extent->getPosition();
    EXPECT_EQ(stop, stopOfWriteThatFailsAt(5));
    recover(*extent);
    EXPECT_EQ(readAt(*extent, 0, stop), slice(fresh, 0, stop));
    EXPECT_EQ(readAt(*extent, stop, grainSize), Bytes(grainSize));
    extent->seek(stop);
    extent->write(fresh.getData() + stop, static_cast<int>(fresh.getUsed() - stop));
    EXPECT_EQ(readAt(*extent, 0, fresh.getUsed()), fresh);
}

TEST_P(CVMDKSparseExtentFileTransferTest, TransferIntoATableThatIsNotThereStandsBeforeIt) {
    constexpr int64 size = 4096;
    createExtent({.compressed = GetParam(), .grainCount = 1536});
    writeAt(*openExtent(), 510 * size, randomBytes(2 * size, 1));
    patchFile<uint32>(int64{loadNumber(Field_Directory)} * 512 + 4, 99999);
    const auto extent = openExtent();
    const std::initializer_list<CProps::Entry> props = {
        {"uri", extentName}, {"tableIndex", "1"}, {"tablePosition", "99999"}};
    const String message("VMDK grain table 1 lies behind the end of the file (sector: 99999).");
    Bytes data(5 * size);
    extent->seek(510 * size);
    EXPECT_LUM_ERROR(extent->read(data.getData(), 5 * size), CIOError, 5, message, props);
    EXPECT_EQ(extent->getPosition(), 512 * size);
    EXPECT_EQ(slice(data, 0, 2 * size), randomBytes(2 * size, 1));

    // From old slots on, and from grains without any.
    for (const int64 first : {510, 508}) {
        data = randomBytes(6 * size, 2);
        extent->seek(first * size);
        EXPECT_LUM_ERROR(extent->write(data.getData(), 6 * size), CIOError, 5, message, props);
        EXPECT_EQ(extent->getPosition(), 512 * size);
        extent->flushChanges();
        EXPECT_EQ(readAt(*extent, first * size, (512 - first) * size), slice(data, 0, (512 - first) * size));
    }
}

TEST_P(CVMDKSparseExtentFileTransferTest, WriteThatReaches2TiBStandsBehindWhatFits) {
    constexpr int64 size = 4096;
    constexpr int64 limit = (int64{1} << 32) * 512;
    createExtent({.compressed = GetParam()});
    const int64 slot = GetParam() ? 9 * 512 : size; // of a random grain
    {
        const P<IIOStream> stream = m_memory->openFile(extentURI, IIOStream::Access_ReadWrite);
        stream->setLength(limit - 3 * slot);
    }
    // A new slot must lie behind the data that are there.
    auto extent = openExtent();
    takeLog(); // the trail is not at the end
    const Bytes data = randomBytes(8 * size, 1);
    extent->seek(size);
    EXPECT_LUM_ERROR(
        extent->write(data.getData(), 8 * size), CIOError, 3,
        "VMDK grain cannot be stored: the extent file would grow beyond 2 TiB (position: " +
            toDecimal(limit) + ", slot size: " + toDecimal(slot / 512) + " sectors).",
        {{"uri", extentName}, {"position", toDecimal(limit)}, {"slotSize", toDecimal(slot / 512)}});
    const int64 moved = (GetParam() ? 4 : 3) * size; // the one that has no room is still pending
    EXPECT_EQ(extent->getPosition(), size + moved);
    if (!GetParam()) {
        EXPECT_EQ(readAt(*extent, size, moved), slice(data, 0, moved));
        EXPECT_EQ(readAt(*extent, size + moved, size), Bytes(size));
        extent->flushChanges();
        return;
    }
    EXPECT_THROW(extent->flushChanges(), CIOError);
    EXPECT_EQ(slotOf(*extent, 3), limit - slot);
    EXPECT_EQ(slotOf(*extent, 4), 0);
    extent = nullptr;
    EXPECT_EQ(takeLog().size(), 2U) << "extent and grain tell what they could not write";
}

TEST_P(CVMDKSparseExtentFileTransferTest, ReadFromAFailingParentStandsAtTheGrainThatNeedsIt) {
    create();
    writeAt(*openExtent(), 0, slice(oldContents(), 0, 3 * grainSize));
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    provider->fails = true;
    const auto extent = openExtent({.fallback = provider.get()});
    Bytes data(6 * grainSize);
    extent->seek(0);
    EXPECT_LUM_ERROR(extent->read(data.getData(), 6 * grainSize), CIOError, 1, "Parent fails");
    EXPECT_EQ(extent->getPosition(), 3 * grainSize);
    EXPECT_EQ(slice(data, 0, 3 * grainSize), slice(oldContents(), 0, 3 * grainSize));
}

// --- What is refused before it begins ---

TEST_P(CVMDKSparseExtentFileTransferTest, NegativeSizesAreRefusedAndChangeNothing) {
    create();
    const auto extent = openExtent();
    extent->seek(77);
    unsigned char byte = 0xEE;
    for (const int size : {-1, -65536, INT32_MIN}) {
        EXPECT_INVALID_ARG_ERROR(extent->read(&byte, size), "CVMDKSparseExtentFile::read",
                                 "Invalid number of bytes to read: " + toDecimal(size),
                                 {{"uri", extentName}});
        EXPECT_INVALID_ARG_ERROR(extent->write(&byte, size), "CVMDKSparseExtentFile::write",
                                 "Invalid number of bytes to write: " + toDecimal(size),
                                 {{"uri", extentName}});
    }
    EXPECT_EQ(byte, 0xEE);
    EXPECT_EQ(extent->getPosition(), 77);
    EXPECT_FALSE(extent->isGrainWritten());
    EXPECT_EQ(getStoredContentID(), oldContentID);
}

TEST_P(CVMDKSparseExtentFileTransferTest, ZerosForATableThatWasNeverAllocatedAreRefusedAsOtherBytes) {
    constexpr int64 size = 4096;
    createExtent({.compressed = GetParam(), .grainCount = 1024});
    for (const int field : {Field_Directory, Field_RedundantDirectory})
        patchFile<uint32>(int64{loadNumber(field)} * 512, 0);
    const auto extent = openExtent();
    const Bytes zeros(4 * size);
    for (const int64 count : {int64{100}, size, 2 * size, 4 * size}) {
        for (const int64 start : {int64{0}, 100 * size}) {
            extent->seek(start);
            EXPECT_LUM_ERROR(extent->write(zeros.getData(), static_cast<int>(count)), CIOError, 5,
                             "VMDK grain table 0 was never allocated (sector: 0).",
                             {{"uri", extentName}, {"tableIndex", "0"}, {"tablePosition", "0"}});
            EXPECT_EQ(extent->getPosition(), start);
        }
    }
    writeAt(*extent, 512 * size, zeros);
    extent->flushChanges();
}

TEST_P(CVMDKSparseExtentFileTransferTest, RefusedPreparedDataOfAFreshExtentLeaveTheContentID) {
    create();
    const Bytes before = loadFile();
    const Bytes mainFile = loadFile(mainURI);
    const auto extent = openExtent();
    for (const int64 size : {int64{0}, int64{11}, 3 * grainSize})
        EXPECT_THROW(extent->writePreparedGrainData(Bytes(size)), CInvalidArgError) << size;
    EXPECT_EQ(extent->getPosition(), 0);
    EXPECT_EQ(getStoredContentID(), oldContentID);
    EXPECT_EQ(loadFile(mainURI), mainFile);
    extent->flushChanges();
    EXPECT_EQ(loadFile(), before);

    // Who may not write is told so first.
    const auto readOnly = openExtent({.access = IIOStream::Access_Read});
    EXPECT_LUM_ERROR(readOnly->writePreparedGrainData(Bytes(11)), CError, -1,
                     "Internal error: VMDK sparse extent file is about to be changed, but it was not opened "
                     "for writing.",
                     {{"uri", extentName}});
}

// --- The last grain ---

TEST_P(CVMDKSparseExtentFileTransferTest, NoGrainBeginsAtTheEnd) {
    create();
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    const auto extent = openExtent({.fallback = provider.get()});
    extent->seek(700);
    EXPECT_INVALID_ARG_ERROR(extent->makeGrainIndependentOfParent(grainCount), "CVMDKSparseExtentFile::seek",
                             "Invalid position: " + toDecimal(grainCount * grainSize), {{"uri", extentName}});
    EXPECT_EQ(extent->getPosition(), 700);
    EXPECT_GT(extent->makeGrainIndependentOfParent(grainCount - 1), 0);
    EXPECT_EQ(extent->getPosition(), grainCount * grainSize);

    const auto readOnly = openExtent({.access = IIOStream::Access_Read});
    for (const int64 grain : {grainCount, int64{-1}, INT64_MAX})
        EXPECT_LUM_ERROR(readOnly->makeGrainIndependentOfParent(grain), CError, -1,
                         "Internal error: VMDK sparse extent file is about to be changed, but it was not "
                         "opened for writing.",
                         {{"uri", extentName}});
}

TEST_P(CVMDKSparseExtentFileTransferTest, PartialLastGrainIsMadeIndependentUpToTheEnd) {
    create();
    patchFile<uint64>(Field_Capacity, static_cast<uint64>(grainCount * 128 - 3));
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    const int64 end = grainCount * grainSize - 3 * 512;
    {
        const auto extent = openExtent({.fallback = provider.get()});
        EXPECT_GT(extent->makeGrainIndependentOfParent(grainCount - 1), 0);
        EXPECT_EQ(extent->getPosition(), end);
        EXPECT_LUM_ERROR(extent->write("x", 1), CIOError, 3, "Write exceeded VMDK extent size.",
                         {{"uri", extentName}, {"position", toDecimal(end)}, {"bytesToWrite", "1"}});
    }
    takeLog(); // of the footer, which holds another capacity now
    EXPECT_EQ(readAt(*openExtent({.access = IIOStream::Access_Read}), end - 100, 100),
              CFakeDataProvider::contentsAt(end - 100, 100));
    takeLog();
}

// --- What goes to the file ---

namespace {

/// A plain extent over a stream that writes down what is asked of it.
class CVMDKSparseExtentFileOperationsTest : public ExtentTest {
protected:
    using Kind = CRecordingStream::Kind;

    void SetUp() override {
        createExtent({.grainCount = grainCount, .grainSizeSectors = 128});
        const P<IIOStream> file = m_faults->openFile(extentURI, IIOStream::Access_ReadWrite);
        m_stream = new CRecordingStream(file.get());
        m_extent = new CVMDKSparseExtentFile(m_stream.get(), IIOStream::Access_ReadWrite, 0, 1, m_cache.get(),
                                             nullptr, m_updater.get(), nullptr, m_key, m_iv);
        readAt(*m_extent, 0, 1); // the tables
        m_stream->takeOperations();
    }
    /// The sizes of the transfers of one kind since the last call.
    std::vector<int64> takeSizes(Kind kind) {
        std::vector<int64> sizes;
        for (const auto& operation : m_stream->takeOperations())
            if (operation.kind == kind && operation.size >= grainSize)
                sizes.push_back(operation.size);
        return sizes;
    }

    P<CRecordingStream> m_stream;
    P<CVMDKSparseExtentFile> m_extent;
};

} // namespace

TEST_F(CVMDKSparseExtentFileOperationsTest, NeighbouringGrainsGoInOnePiece) {
    using ::testing::ElementsAre;
    const Bytes contents = randomBytes(grainCount * grainSize, 3);
    writeAt(*m_extent, 0, contents);
    EXPECT_THAT(takeSizes(Kind::Write), ElementsAre(grainCount * grainSize)) << "into new slots";
    EXPECT_EQ(readAt(*m_extent, 0, grainCount * grainSize), contents);
    EXPECT_THAT(takeSizes(Kind::Read), ElementsAre(grainCount * grainSize));
    writeAt(*m_extent, 2 * grainSize, randomBytes(5 * grainSize, 4));
    EXPECT_THAT(takeSizes(Kind::Write), ElementsAre(5 * grainSize)) << "into slots that are there";
}

TEST_F(CVMDKSparseExtentFileOperationsTest, SlotsOutOfOrderDivideTheTransfer) {
    using ::testing::ElementsAre;
    writeAt(*m_extent, 4 * grainSize, randomBytes(4 * grainSize, 5));
    writeAt(*m_extent, 0, randomBytes(4 * grainSize, 6));
    m_stream->takeOperations();
    const Bytes contents = randomBytes(8 * grainSize, 7);
    writeAt(*m_extent, 0, contents);
    EXPECT_THAT(takeSizes(Kind::Write), ElementsAre(4 * grainSize, 4 * grainSize));
    EXPECT_EQ(readAt(*m_extent, 0, 8 * grainSize), contents);
    EXPECT_THAT(takeSizes(Kind::Read), ElementsAre(4 * grainSize, 4 * grainSize));
}

TEST_F(CVMDKSparseExtentFileOperationsTest, ZerosBetweenDataAreNotWritten) {
    using ::testing::ElementsAre;
    Bytes contents = randomBytes(grainCount * grainSize, 8);
    std::fill_n(contents.getData() + 3 * grainSize, 2 * grainSize, static_cast<unsigned char>(0));
    writeAt(*m_extent, 0, contents);
    EXPECT_THAT(takeSizes(Kind::Write), ElementsAre(3 * grainSize, (grainCount - 5) * grainSize));
    EXPECT_EQ(readAt(*m_extent, 0, grainCount * grainSize), contents);
}

} // namespace tessel::test
