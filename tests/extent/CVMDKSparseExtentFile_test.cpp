#include "tessel/CVMDKSparseExtentFile.h"

#include "CFakeDataProvider.h"
#include "ExtentFixture.h"

namespace tessel::test {
namespace {

constexpr int64 grainSize = 4096;
constexpr int64 capacity = 20 * grainSize;

/// Both kinds of extents: 20 grains of 4 KiB.
class CVMDKSparseExtentFileTest : public ExtentTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override { createExtent({.compressed = GetParam()}); }

    /// The prepared form of a grain of the pattern.
    static Bytes prepare(IVMDKExtentFile& extent, int64 position) {
        const P<Bytes> data(new Bytes(patternBytes(grainSize)));
        const P<Bytes> aux(new Bytes);
        return *extent.createDataPreparer()->prepareGrainData(data.get(), position / grainSize, aux.get());
    }

    /// What a read of 10 bytes at the position gives.
    static Bytes readOn(IVMDKExtentFile& extent) {
        Bytes data(10);
        extent.read(data.getData(), 10);
        return data;
    }
};

std::string kindOf(const ::testing::TestParamInfo<bool>& info) {
    return info.param ? "Compressed" : "Plain";
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKSparseExtentFileTest, ::testing::Bool(), kindOf);

// --- Position ---

TEST_P(CVMDKSparseExtentFileTest, SeekOutsideChangesNothing) {
    const auto extent = openExtent();
    writeAt(*extent, 4090, patternBytes(100));
    extent->seek(4090);
    for (const int64 position : {int64{-1}, capacity + 1, INT64_MIN, INT64_MAX}) {
        EXPECT_INVALID_ARG_ERROR(extent->seek(position), "CVMDKSparseExtentFile::seek",
                                 "Invalid position: " + toDecimal(position), {{"uri", extentName}});
        EXPECT_EQ(extent->getPosition(), 4090);
    }
    EXPECT_EQ(readOn(*extent), slice(patternBytes(100), 0, 10));
}

TEST_P(CVMDKSparseExtentFileTest, EndIsAPosition) {
    const auto extent = openExtent();
    extent->seek(capacity);
    EXPECT_EQ(extent->getPosition(), capacity);
    extent->read(nullptr, 0);
    EXPECT_EQ(extent->getPosition(), capacity);
    extent->seek(0);
    EXPECT_EQ(readOn(*extent), Bytes(10));
}

TEST_P(CVMDKSparseExtentFileTest, DirectoryDecidesWhetherThereIsAGrainAtTheEnd) {
    createExtent({.compressed = GetParam(), .grainCount = 512, .grainSizeSectors = 1});
    const auto extent = openExtent();
    extent->seek(700);
    EXPECT_INVALID_ARG_ERROR(extent->seek(512 * 512), "CVMDKGrainDirectory::getGrainTable",
                             "invalid table index: 1", {{"uri", extentName}});
    EXPECT_EQ(extent->getPosition(), 700);
}

TEST_P(CVMDKSparseExtentFileTest, SeeksWithinTheOpenGrainKeepIt) {
    const auto extent = openExtent();
    const Bytes data = randomBytes(grainSize - 1, 1);
    writeAt(*extent, 0, data);
    const int64 length = extent->getStream()->getLength();
    extent->seek(17);
    EXPECT_EQ(readOn(*extent), slice(data, 17, 10));
    EXPECT_EQ(extent->getStream()->getLength(), length); // the grain was not written for that
    extent->seek(grainSize);
    EXPECT_GT(extent->getStream()->getLength(), length);
}

TEST_P(CVMDKSparseExtentFileTest, SeekIntoATableThatCannotBeReadChangesNothing) {
    createExtent({.compressed = GetParam(), .grainCount = 34 * 512, .grainSizeSectors = 1});
    const int64 directory = loadNumber(Field_Directory);
    const int64 table = int64{loadNumber(directory * 512 + 33 * 4)} * 512;
    const auto extent = openExtent();
    writeAt(*extent, 100, patternBytes(50));
    extent->seek(100);
    m_faults->addRule(
        {.operation = FaultRule::Read, .rangeStart = table, .rangeEnd = table + 2048, .always = true});
    const auto error = catchError([&] { extent->seek(33 * 512 * 512); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getMessage(), "Cannot read from file: Injected fault");
    EXPECT_EQ(extent->getPosition(), 100);
    EXPECT_EQ(readOn(*extent), slice(patternBytes(50), 0, 10));
    m_faults->clearRules();
    EXPECT_EQ(readAt(*extent, 33 * 512 * 512, 10), Bytes(10));
    EXPECT_EQ(readAt(*extent, 100, 50), patternBytes(50));
}

// --- Reading and writing ---

TEST_P(CVMDKSparseExtentFileTest, NewExtentReadsAsZeros) {
    const auto extent = openExtent();
    EXPECT_EQ(readAt(*extent, 0, capacity), Bytes(capacity));
    EXPECT_EQ(extent->getPosition(), capacity);
}

TEST_P(CVMDKSparseExtentFileTest, TransfersCrossGrains) {
    auto extent = openExtent();
    const Bytes data = patternBytes(3 * grainSize);
    writeAt(*extent, 1000, data);
    EXPECT_EQ(extent->getPosition(), 1000 + 3 * grainSize);
    EXPECT_EQ(readAt(*extent, 1000, 3 * grainSize), data);
    EXPECT_EQ(extent->getPosition(), 1000 + 3 * grainSize);
    EXPECT_EQ(readOn(*extent), Bytes(10));
    extent = nullptr;
    extent = openExtent({.access = IIOStream::Access_Read});
    EXPECT_EQ(readAt(*extent, 1000, 3 * grainSize), data);
    EXPECT_EQ(readAt(*extent, 0, 1000), Bytes(1000));
}

TEST_P(CVMDKSparseExtentFileTest, NeighbouringTransfersGoOnInTheNextGrain) {
    const auto extent = openExtent();
    const Bytes data = patternBytes(2 * grainSize);
    extent->seek(0);
    extent->write(data.getData(), grainSize);
    extent->write(data.getData() + grainSize, grainSize);
    extent->seek(0);
    Bytes back(2 * grainSize);
    extent->read(back.getData(), grainSize);
    extent->read(back.getData() + grainSize, grainSize);
    EXPECT_EQ(back, data);
}

TEST_P(CVMDKSparseExtentFileTest, ReadReachesTheEndAndNotBeyond) {
    const auto extent = openExtent();
    writeAt(*extent, capacity - 5, patternBytes(5));
    EXPECT_EQ(readAt(*extent, capacity - 5, 5), patternBytes(5));

    extent->seek(capacity - 5);
    Bytes data(6);
    data.fill(0xEE);
    EXPECT_LUM_ERROR(extent->read(data.getData(), 6), CIOError, 4,
                     "Unexpected end of data reading from VMDK sparse extent file.",
                     {{"uri", extentName}, {"position", toDecimal(capacity - 5)}, {"bytesToRead", "6"}});
    EXPECT_EQ(data, bytesOf({0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}));
    EXPECT_EQ(extent->getPosition(), capacity - 5);
    EXPECT_LUM_ERROR(
        extent->read(data.getData(), INT32_MAX), CIOError, 4,
        "Unexpected end of data reading from VMDK sparse extent file.",
        {{"uri", extentName}, {"position", toDecimal(capacity - 5)}, {"bytesToRead", "2147483647"}});
    extent->seek(capacity);
    EXPECT_LUM_ERROR(extent->read(data.getData(), 1), CIOError, 4,
                     "Unexpected end of data reading from VMDK sparse extent file.",
                     {{"uri", extentName}, {"position", toDecimal(capacity)}, {"bytesToRead", "1"}});
}

TEST_P(CVMDKSparseExtentFileTest, WriteReachesTheEndAndNotBeyond) {
    const auto extent = openExtent();
    extent->seek(capacity - 5);
    const Bytes data = patternBytes(6);
    EXPECT_LUM_ERROR(extent->write(data.getData(), 6), CIOError, 3, "Write exceeded VMDK extent size.",
                     {{"uri", extentName}, {"position", toDecimal(capacity - 5)}, {"bytesToWrite", "6"}});
    EXPECT_EQ(extent->getPosition(), capacity - 5);
    EXPECT_EQ(getStoredContentID(), oldContentID);
    EXPECT_FALSE(extent->isGrainWritten());
    extent->write(data.getData(), 5);
    EXPECT_EQ(extent->getPosition(), capacity);
    EXPECT_LUM_ERROR(extent->write(data.getData(), 1), CIOError, 3, "Write exceeded VMDK extent size.",
                     {{"uri", extentName}, {"position", toDecimal(capacity)}, {"bytesToWrite", "1"}});
    EXPECT_EQ(readAt(*extent, capacity - 5, 5), slice(data, 0, 5));
}

TEST_P(CVMDKSparseExtentFileTest, LastGrainMayBePartial) {
    patchFile<uint64>(Field_Capacity, capacity / 512 - 3);
    const int64 size = capacity - 3 * 512;
    auto extent = openExtent();
    const Bytes data = patternBytes(2 * grainSize);
    writeAt(*extent, size - 2 * grainSize, data);
    EXPECT_LUM_ERROR(extent->write(data.getData(), 1), CIOError, 3, "Write exceeded VMDK extent size.",
                     {{"uri", extentName}, {"position", toDecimal(size)}, {"bytesToWrite", "1"}});
    extent = nullptr;
    extent = openExtent();
    EXPECT_EQ(readAt(*extent, size - 2 * grainSize, 2 * grainSize), data);
    EXPECT_EQ(extent->getPosition(), size);
    EXPECT_EQ(extent->gatherSpaceInfo()->getPayloadSize(), 3 * grainSize);
    takeLog(); // of the footer, which holds another capacity now
}

TEST_P(CVMDKSparseExtentFileTest, ReadThatFailsHalfWayLeavesThePositionThere) {
    {
        const auto extent = openExtent();
        writeAt(*extent, 0, randomBytes(3 * grainSize, 1));
    }
    const auto extent = openExtent();
    int64 position = 0;
    int64 slotSize = 0;
    extent->getGrainDirectory().getGrainInfo(1, position, slotSize);
    m_faults->addRule({.operation = FaultRule::Read,
                       .rangeStart = position * 512,
                       .rangeEnd = position * 512 + 512,
                       .always = true});
    Bytes data(3 * grainSize);
    extent->seek(100);
    EXPECT_THROW(extent->read(data.getData(), 2 * grainSize), CIOError);
    EXPECT_EQ(extent->getPosition(), grainSize);
    EXPECT_EQ(slice(data, 0, grainSize - 100), slice(randomBytes(3 * grainSize, 1), 100, grainSize - 100));
    m_faults->clearRules();
    EXPECT_EQ(readOn(*extent), slice(randomBytes(3 * grainSize, 1), grainSize, 10));
}

TEST_P(CVMDKSparseExtentFileTest, TakesGrainsItDoesNotHoldFromTheProvider) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    const auto extent = openExtent({.startGrainIndex = 1000, .fallback = provider.get()});
    const int64 start = 1000 * grainSize;
    EXPECT_EQ(readAt(*extent, 5000, 3 * grainSize),
              CFakeDataProvider::contentsAt(start + 5000, 3 * grainSize));
    writeAt(*extent, grainSize + 10, bytesOf("own"));
    EXPECT_EQ(readAt(*extent, grainSize, 10), CFakeDataProvider::contentsAt(start + grainSize, 10));
    EXPECT_EQ(readAt(*extent, grainSize + 10, 3), bytesOf("own"));

    extent->setFallbackDataProvider(nullptr);
    EXPECT_EQ(readAt(*extent, 0, 100), Bytes(100));
    EXPECT_EQ(readAt(*extent, grainSize, 10), CFakeDataProvider::contentsAt(start + grainSize, 10));
    extent->setFallbackDataProvider(provider.get());
    EXPECT_EQ(readAt(*extent, 0, 100), CFakeDataProvider::contentsAt(start, 100));
}

// --- Access and content ID ---

TEST_P(CVMDKSparseExtentFileTest, FirstWriteChangesTheContentID) {
    const auto extent = openExtent();
    EXPECT_EQ(readAt(*extent, 0, 10), Bytes(10));
    EXPECT_EQ(getStoredContentID(), oldContentID);
    writeAt(*extent, 0, bytesOf("x"));
    const unsigned int newID = getStoredContentID();
    EXPECT_NE(newID, oldContentID);
    EXPECT_EQ(m_descriptor->getContentID(), newID);
    writeAt(*extent, 0, bytesOf("y"));
    EXPECT_EQ(getStoredContentID(), newID);
}

TEST_P(CVMDKSparseExtentFileTest, WriteOfNothingChangesTheContentID) {
    const auto extent = openExtent();
    extent->seek(capacity);
    extent->write(nullptr, 0);
    EXPECT_NE(getStoredContentID(), oldContentID);
    EXPECT_EQ(extent->getPosition(), capacity);
}

TEST_P(CVMDKSparseExtentFileTest, NothingIsChangedWhenTheContentIDCannotBe) {
    const auto extent = openExtent();
    m_faults->addRule({.operation = FaultRule::Open, .fileSuffix = "disk.vmdk"});
    const Bytes before = loadFile();
    extent->seek(77);
    const Bytes data = bytesOf("data");
    EXPECT_FILE_SYSTEM_ERROR(extent->write(data.getData(), 4), CFileSystemError::Problem_AccessDenied,
                             "Cannot open file: Injected fault", {{"uri", mainURI.toString(true)}});
    EXPECT_EQ(extent->getPosition(), 77);
    EXPECT_FALSE(extent->isGrainWritten());
    extent->flushChanges();
    EXPECT_EQ(loadFile(), before);
    extent->write(data.getData(), 4);
    EXPECT_NE(getStoredContentID(), oldContentID);
    EXPECT_EQ(readAt(*extent, 77, 4), data);
}

TEST_P(CVMDKSparseExtentFileTest, ChangeNeedsAnUpdater) {
    const auto extent = openExtent({.withUpdater = false});
    const String message(
        "Internal error: VMDK sparse extent file is about to be changed, but it does not have "
        "a content ID updater.");
    EXPECT_LUM_ERROR(extent->write("x", 1), CError, -1, message, {{"uri", extentName}});
    EXPECT_LUM_ERROR(extent->writePreparedGrainData(Bytes(grainSize)), CError, -1, message,
                     {{"uri", extentName}});
    EXPECT_EQ(extent->getPosition(), 0);
    // It is asked for before the access is.
    const auto readOnly = openExtent({.access = IIOStream::Access_Read, .withUpdater = false});
    EXPECT_LUM_ERROR(readOnly->write("x", 1), CError, -1, message, {{"uri", extentName}});
}

TEST_P(CVMDKSparseExtentFileTest, ChangeNeedsWriteAccess) {
    const auto extent = openExtent({.access = IIOStream::Access_Read});
    const String message(
        "Internal error: VMDK sparse extent file is about to be changed, but it was not opened for writing.");
    EXPECT_LUM_ERROR(extent->write("x", 1), CError, -1, message, {{"uri", extentName}});
    EXPECT_LUM_ERROR(extent->writePreparedGrainData(Bytes(grainSize)), CError, -1, message,
                     {{"uri", extentName}});
    EXPECT_LUM_ERROR(extent->makeGrainIndependentOfParent(3), CError, -1, message, {{"uri", extentName}});
    EXPECT_EQ(extent->getPosition(), 0);
    EXPECT_EQ(getStoredContentID(), oldContentID);
}

// --- Tables that are not there ---

TEST_P(CVMDKSparseExtentFileTest, TableThatWasNeverAllocatedReadsAsZerosAndTakesNoWrite) {
    createExtent({.compressed = GetParam(), .grainCount = 1024});
    for (const int field : {Field_Directory, Field_RedundantDirectory})
        patchFile<uint32>(int64{loadNumber(field)} * 512, 0);
    const auto extent = openExtent();
    const int64 second = 512 * grainSize;
    EXPECT_EQ(readAt(*extent, second - 100, 200), Bytes(200));
    EXPECT_FALSE(extent->isGrainWritten());

    const std::initializer_list<CProps::Entry> props = {
        {"uri", extentName}, {"tableIndex", "0"}, {"tablePosition", "0"}};
    const String message("VMDK grain table 0 was never allocated (sector: 0).");
    const Bytes data = patternBytes(200);
    EXPECT_LUM_ERROR(writeAt(*extent, 0, data), CIOError, 5, message, props);
    EXPECT_LUM_ERROR(writeAt(*extent, second - 100, data), CIOError, 5, message, props);
    EXPECT_EQ(extent->getPosition(), second - 100);
    extent->seek(grainSize);
    const Bytes prepared = prepare(*extent, grainSize);
    EXPECT_LUM_ERROR(extent->writePreparedGrainData(prepared), CIOError, 5, message, props);
    EXPECT_EQ(extent->getPosition(), grainSize);

    // A refused write is not kept, and the extent goes on.
    writeAt(*extent, second, data);
    extent->flushChanges();
    EXPECT_EQ(readAt(*extent, second, 200), data);
    EXPECT_EQ(readAt(*extent, 0, 3 * grainSize), Bytes(3 * grainSize));
}

TEST_P(CVMDKSparseExtentFileTest, TableBehindTheEndIsRefusedWhenItIsNeeded) {
    createExtent({.compressed = GetParam(), .grainCount = 1024});
    patchFile<uint32>(int64{loadNumber(Field_Directory)} * 512, 9999);
    const auto extent = openExtent();
    EXPECT_EQ(readAt(*extent, 512 * grainSize, 10), Bytes(10));
    EXPECT_LUM_ERROR(extent->seek(0), CIOError, 5,
                     "VMDK grain table 0 lies behind the end of the file (sector: 9999).",
                     {{"uri", extentName}, {"tableIndex", "0"}, {"tablePosition", "9999"}});
    EXPECT_EQ(extent->getPosition(), 512 * grainSize + 10);
}

} // namespace tessel::test
