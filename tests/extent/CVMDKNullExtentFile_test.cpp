#include "tessel/CVMDKNullExtentFile.h"

#include "CFakeDataProvider.h"
#include "ErrorMatchers.h"
#include "tessel/CVMDKSpaceInfo.h"

#include <gtest/gtest.h>

namespace tessel::test {
namespace {

constexpr int64 grainSize = 4096;
constexpr int64 capacity = 10 * grainSize + 512;
constexpr int64 startGrain = 100;

const CURI uri(String("memory:/disks/no file.vmdk"));
const String name = uri.toString(true);

class CCountingNullExtentFile : public CVMDKNullExtentFile {
public:
    using CVMDKNullExtentFile::CVMDKNullExtentFile;

    int preparersMade = 0;

    P<CVMDKDataPreparer> createDataPreparer() override {
        ++preparersMade;
        return CVMDKNullExtentFile::createDataPreparer();
    }
};

class CVMDKNullExtentFileTest : public ::testing::TestWithParam<bool> {
protected:
    P<CCountingNullExtentFile> make(IVMDKDataProvider* fallback = nullptr) {
        return new CCountingNullExtentFile(uri, startGrain, grainSize / 512, capacity / 512, 512, GetParam(),
                                           1, fallback);
    }

    static Bytes read(CVMDKNullExtentFile& extent, int count) {
        Bytes data(count);
        data.fill(0xEE);
        extent.read(data.getData(), count);
        return data;
    }

    static Bytes readPrepared(CVMDKNullExtentFile& extent, int64 grain) {
        Bytes data = bytesOf("old contents");
        extent.seek(grain * grainSize);
        extent.readPreparedGrainData(data);
        EXPECT_EQ(extent.getPosition(), (grain + 1) * grainSize);
        return data;
    }

    static Bytes prepare(const Bytes& grain, int64 diskGrainIndex) {
        const P<CVMDKDataPreparer> preparer(new CVMDKDataPreparer(grainSize / 512, GetParam(), 1));
        const P<Bytes> data(new Bytes(grain));
        const P<Bytes> aux(new Bytes);
        return *preparer->prepareGrainData(data.get(), diskGrainIndex, aux.get());
    }
};

std::string kindOf(const ::testing::TestParamInfo<bool>& info) {
    return info.param ? "Compressed" : "Plain";
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKNullExtentFileTest, ::testing::Bool(), kindOf);

TEST_P(CVMDKNullExtentFileTest, TellsWhatItWasMadeFrom) {
    const auto extent = make();
    EXPECT_EQ(extent->getURI(), uri);
    EXPECT_EQ(extent->getStartGrainIndex(), startGrain);
    EXPECT_EQ(extent->getGrainSizeSectors(), grainSize / 512);
    EXPECT_EQ(extent->getCompressed(), GetParam());
    EXPECT_EQ(extent->getPosition(), 0);
    EXPECT_EQ(extent->createDataPreparer()->doesAnything(), GetParam());
}

TEST_P(CVMDKNullExtentFileTest, SeeksFromStartToEnd) {
    const auto extent = make();
    for (const int64 position : {int64{0}, int64{1}, capacity}) {
        extent->seek(position);
        EXPECT_EQ(extent->getPosition(), position);
    }
    extent->seek(77);
    for (const int64 position : {int64{-1}, capacity + 1, INT64_MIN, INT64_MAX}) {
        EXPECT_INVALID_ARG_ERROR(extent->seek(position), "CVMDKNullExtentFile::seek",
                                 "Invalid position: " + toDecimal(position), {{"uri", name}});
        EXPECT_EQ(extent->getPosition(), 77);
    }
}

TEST_P(CVMDKNullExtentFileTest, ReadsZeros) {
    const auto extent = make();
    EXPECT_EQ(read(*extent, static_cast<int>(capacity)), Bytes(capacity));
    EXPECT_EQ(extent->getPosition(), capacity);
    extent->seek(1000);
    EXPECT_EQ(read(*extent, 5), Bytes(5));
    EXPECT_EQ(extent->getPosition(), 1005);
}

TEST_P(CVMDKNullExtentFileTest, ReadReachesTheEndAndNotBeyond) {
    const auto extent = make();
    extent->seek(capacity);
    EXPECT_EQ(read(*extent, 0), Bytes());
    EXPECT_EQ(extent->getPosition(), capacity);
    EXPECT_LUM_ERROR(read(*extent, 1), CIOError, 4,
                     "Unexpected end of data reading from VMDK null extent file.",
                     {{"uri", name}, {"position", "41472"}, {"bytesToRead", "1"}});
    extent->seek(capacity - 5);
    Bytes data(6);
    data.fill(0xEE);
    EXPECT_LUM_ERROR(extent->read(data.getData(), 6), CIOError, 4,
                     "Unexpected end of data reading from VMDK null extent file.",
                     {{"uri", name}, {"position", "41467"}, {"bytesToRead", "6"}});
    EXPECT_EQ(data[0], 0xEE);
    EXPECT_EQ(extent->getPosition(), capacity - 5);
    EXPECT_EQ(read(*extent, 5), Bytes(5));
}

TEST_P(CVMDKNullExtentFileTest, NegativeCountDoesNotMoveThePosition) {
    const auto extent = make();
    extent->seek(10);
    EXPECT_INVALID_ARG_ERROR(extent->read(nullptr, -5), "CVMDKNullExtentFile::read",
                             "Invalid number of bytes to read: -5", {{"uri", name}});
    EXPECT_EQ(extent->getPosition(), 10);
}

TEST_P(CVMDKNullExtentFileTest, ReadsFromTheProviderInOneCall) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    const auto extent = make(provider.get());
    extent->seek(1000);
    EXPECT_EQ(read(*extent, 3 * grainSize),
              CFakeDataProvider::contentsAt(startGrain * grainSize + 1000, 3 * grainSize));
    EXPECT_EQ(extent->getPosition(), 1000 + 3 * grainSize);
    EXPECT_EQ(provider->dataCalls,
              (TArray<CFakeDataProvider::Call>{{startGrain * grainSize + 1000, 3 * grainSize}}));
}

TEST_P(CVMDKNullExtentFileTest, ProviderCanBeChanged) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    const auto extent = make();
    const Bytes zeros = readPrepared(*extent, 0);
    extent->setFallbackDataProvider(provider.get());
    extent->seek(0);
    EXPECT_EQ(read(*extent, 10), CFakeDataProvider::contentsAt(startGrain * grainSize, 10));
    extent->setFallbackDataProvider(nullptr);
    extent->seek(0);
    EXPECT_EQ(read(*extent, 10), Bytes(10));
    EXPECT_EQ(readPrepared(*extent, 0), zeros);
    EXPECT_EQ(extent->preparersMade, 1);
}

TEST_P(CVMDKNullExtentFileTest, PreparedZerosAreMadeOnceAndStampedEachTime) {
    const auto extent = make();
    for (const int64 grain : {3, 0, 9, 3})
        EXPECT_EQ(readPrepared(*extent, grain), prepare(Bytes(grainSize), startGrain + grain)) << grain;
    EXPECT_EQ(extent->preparersMade, 1);
    // Whoever got one may do with it what they like.
    Bytes data = readPrepared(*extent, 1);
    data.fill(0xFF);
    EXPECT_EQ(readPrepared(*extent, 1), prepare(Bytes(grainSize), startGrain + 1));
}

TEST_P(CVMDKNullExtentFileTest, PreparedGrainsComeFromTheProvider) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    const auto extent = make(provider.get());
    const int64 position = (startGrain + 4) * grainSize;
    EXPECT_EQ(readPrepared(*extent, 4),
              prepare(CFakeDataProvider::contentsAt(position, grainSize), startGrain + 4));
    EXPECT_EQ(provider->preparedCalls, (TArray<CFakeDataProvider::Call>{{position, grainSize}}));
    EXPECT_EQ(provider->lastPreparedWasCompressed, GetParam());
    EXPECT_EQ(extent->preparersMade, 0);
}

TEST_P(CVMDKNullExtentFileTest, RefusesPreparedReadsBeyondTheEnd) {
    const auto extent = make();
    // Off a grain boundary as well: the end is looked at first.
    for (const int64 position : {capacity - 512, capacity - 511, capacity - grainSize + 1, capacity}) {
        extent->seek(position);
        Bytes data = bytesOf("kept");
        EXPECT_LUM_ERROR(extent->readPreparedGrainData(data), CIOError, 3,
                         "Prepared grain read exceeds VMDK extent size.",
                         {{"uri", name},
                          {"position", toDecimal(position)},
                          {"grainSize", "4096"},
                          {"extentSize", "41472"}});
        EXPECT_EQ(data, bytesOf("kept"));
        EXPECT_EQ(extent->getPosition(), position);
    }
}

TEST_P(CVMDKNullExtentFileTest, RefusesPreparedReadsOffAGrainBoundary) {
    const auto extent = make();
    extent->seek(grainSize + 512);
    Bytes data = bytesOf("kept");
    EXPECT_LUM_ERROR(extent->readPreparedGrainData(data), CIOError, 11,
                     "Prepared grain read in VMDK extent file can only be done on a grain boundary.",
                     {{"uri", name}, {"position", "4608"}, {"grainSize", "4096"}});
    EXPECT_EQ(data, bytesOf("kept"));
    EXPECT_EQ(extent->getPosition(), grainSize + 512);
}

TEST_P(CVMDKNullExtentFileTest, GrainsAreWrittenWhereTheProviderSaysSo) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    provider->writtenPositions = {(startGrain + 2) * grainSize};
    const auto extent = make(provider.get());
    extent->seek(2 * grainSize + 4000);
    EXPECT_TRUE(extent->isGrainWritten());
    EXPECT_FALSE(extent->isGrainWrittenAndIndependentOfParent());
    extent->seek(3 * grainSize);
    EXPECT_FALSE(extent->isGrainWritten());
    EXPECT_EQ(provider->writtenCalls, (TArray<int64>{102 * grainSize, 103 * grainSize}));
    extent->setFallbackDataProvider(nullptr);
    extent->seek(2 * grainSize);
    EXPECT_FALSE(extent->isGrainWritten());
    EXPECT_FALSE(extent->isGrainWrittenAndIndependentOfParent());
}

TEST_P(CVMDKNullExtentFileTest, FailureOfTheProviderPassesThrough) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    provider->fails = true;
    const auto extent = make(provider.get());
    Bytes data(10);
    EXPECT_LUM_ERROR(extent->read(data.getData(), 10), CIOError, 1, "Parent fails");
    EXPECT_LUM_ERROR(extent->readPreparedGrainData(data), CIOError, 1, "Parent fails");
    EXPECT_LUM_ERROR(extent->isGrainWritten(), CIOError, 1, "Parent fails");
    EXPECT_FALSE(extent->isGrainWrittenAndIndependentOfParent());
    EXPECT_EQ(extent->getPosition(), 0);
}

TEST_P(CVMDKNullExtentFileTest, IsNeverChanged) {
    const auto extent = make();
    extent->seek(grainSize);
    EXPECT_LUM_ERROR(extent->write("x", 1), CError, -1,
                     "Internal error: write method called on VMDK null extent file.", {{"uri", name}});
    EXPECT_LUM_ERROR(extent->write("x", 0), CError, -1,
                     "Internal error: write method called on VMDK null extent file.", {{"uri", name}});
    EXPECT_LUM_ERROR(extent->writePreparedGrainData(Bytes(grainSize)), CError, -1,
                     "Internal error: writePreparedGrainData method called on VMDK null extent file.",
                     {{"uri", name}});
    EXPECT_LUM_ERROR(extent->makeGrainIndependentOfParent(0), CError, -1,
                     "Internal error: makeGrainIndependentOfParent method called on VMDK null extent file.",
                     {{"uri", name}});
    EXPECT_EQ(extent->getPosition(), grainSize);
    extent->flushChanges();
}

TEST_P(CVMDKNullExtentFileTest, TakesNoSpace) {
    const P<CVMDKSpaceInfo> info = make()->gatherSpaceInfo();
    EXPECT_EQ(info->getPayloadSize(), 0);
    EXPECT_EQ(info->getPayloadSizeInFile(), 0);
    EXPECT_EQ(info->getHeaderSize(), 0);
    EXPECT_EQ(info->getDeadSpaceSize(), 0);
}

TEST(CVMDKNullExtentFileSectorTest, SectorSizeIsTheCreators) {
    const P<CVMDKNullExtentFile> extent(new CVMDKNullExtentFile(uri, 0, 2, 4, 1024, false, 1, nullptr));
    extent->seek(4096);
    EXPECT_INVALID_ARG_ERROR(extent->seek(4097), "CVMDKNullExtentFile::seek", "Invalid position: 4097",
                             {{"uri", name}});
    Bytes data;
    EXPECT_LUM_ERROR(extent->readPreparedGrainData(data), CIOError, 3,
                     "Prepared grain read exceeds VMDK extent size.",
                     {{"uri", name}, {"position", "4096"}, {"grainSize", "2048"}, {"extentSize", "4096"}});
}

} // namespace tessel::test
