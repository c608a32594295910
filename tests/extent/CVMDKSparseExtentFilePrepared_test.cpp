// Whole grains in prepared form, and what is asked of grains.

#include "CFakeDataProvider.h"
#include "ExtentFixture.h"

namespace tessel::test {
namespace {

constexpr int64 grainSize = 4096;
constexpr int64 capacity = 20 * grainSize;

class CVMDKSparseExtentFilePreparedTest : public ExtentTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override { createExtent({.compressed = GetParam()}); }

    /// Prepared as another disk would have it: at another place.
    Bytes prepare(const Bytes& grain) const {
        const P<CVMDKDataPreparer> preparer(new CVMDKDataPreparer(grainSize / 512, GetParam(), 1));
        const P<Bytes> data(new Bytes(grain));
        const P<Bytes> aux(new Bytes);
        return *preparer->prepareGrainData(data.get(), 12345, aux.get());
    }
    Bytes unprepare(const Bytes& prepared) const {
        const P<CVMDKDataPreparer> preparer(new CVMDKDataPreparer(grainSize / 512, GetParam(), 1));
        const P<Bytes> data(new Bytes(prepared));
        const P<Bytes> aux(new Bytes);
        return *preparer->unprepareGrainData(data.get(), aux.get());
    }
    static Bytes grainOf(unsigned int seed) { return patternBytes(grainSize, seed); }
};

/// An extent whose seek goes elsewhere than it is told.
class CAstrayExtent : public CVMDKSparseExtentFile {
public:
    using CVMDKSparseExtentFile::beginIOOp;
    using CVMDKSparseExtentFile::CVMDKSparseExtentFile;

    int64 shift = 0;
    bool goesNowhere = false;

    void seek(int64 position) override {
        if (!goesNowhere)
            CVMDKSparseExtentFile::seek(position + shift);
    }
};

std::string kindOf(const ::testing::TestParamInfo<bool>& info) {
    return info.param ? "Compressed" : "Plain";
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKSparseExtentFilePreparedTest, ::testing::Bool(), kindOf);

TEST_P(CVMDKSparseExtentFilePreparedTest, TwoWritesInARowHitTwoGrains) {
    auto extent = openExtent();
    extent->seek(2 * grainSize);
    extent->writePreparedGrainData(prepare(grainOf(1)));
    EXPECT_EQ(extent->getPosition(), 3 * grainSize);
    extent->writePreparedGrainData(prepare(grainOf(2)));
    extent->writePreparedGrainData(prepare(grainOf(3)));
    EXPECT_EQ(extent->getPosition(), 5 * grainSize);
    extent = nullptr;
    extent = openExtent({.access = IIOStream::Access_Read});
    for (int grain = 2; grain < 5; ++grain)
        EXPECT_EQ(readAt(*extent, grain * grainSize, grainSize), grainOf(static_cast<unsigned>(grain - 1)));
    EXPECT_EQ(readAt(*extent, grainSize, grainSize), Bytes(grainSize));
    EXPECT_EQ(readAt(*extent, 5 * grainSize, grainSize), Bytes(grainSize));
}

TEST_P(CVMDKSparseExtentFilePreparedTest, TwoReadsInARowGiveTwoGrains) {
    const auto extent = openExtent();
    for (unsigned int grain = 0; grain < 3; ++grain)
        writeAt(*extent, grain * grainSize, grainOf(grain));
    extent->seek(0);
    for (unsigned int grain = 0; grain < 3; ++grain) {
        Bytes prepared = bytesOf("old contents");
        extent->readPreparedGrainData(prepared);
        EXPECT_EQ(unprepare(prepared), grainOf(grain)) << grain;
        EXPECT_EQ(extent->getPosition(), (grain + 1) * grainSize);
    }
    Bytes prepared;
    extent->readPreparedGrainData(prepared); // of a grain that was never written
    EXPECT_EQ(unprepare(prepared), Bytes(grainSize));
}

TEST_P(CVMDKSparseExtentFilePreparedTest, OtherTransfersGoOnInTheNextGrain) {
    const auto extent = openExtent();
    writeAt(*extent, grainSize, grainOf(7));
    extent->seek(0);
    extent->writePreparedGrainData(prepare(grainOf(1)));
    Bytes data(grainSize);
    extent->read(data.getData(), grainSize);
    EXPECT_EQ(data, grainOf(7));

    extent->seek(0);
    Bytes prepared;
    extent->readPreparedGrainData(prepared);
    extent->write(grainOf(8).getData(), grainSize);
    EXPECT_EQ(readAt(*extent, 0, grainSize), grainOf(1));
    EXPECT_EQ(readAt(*extent, grainSize, grainSize), grainOf(8));
}

TEST_P(CVMDKSparseExtentFilePreparedTest, GrainCanBeReadAgainAfterAPreparedTransfer) {
    const auto extent = openExtent();
    extent->writePreparedGrainData(prepare(grainOf(1)));
    EXPECT_EQ(readAt(*extent, 10, 20), slice(grainOf(1), 10, 20));
    extent->seek(0);
    Bytes prepared;
    extent->readPreparedGrainData(prepared);
    EXPECT_EQ(readAt(*extent, 10, 20), slice(grainOf(1), 10, 20));
}

TEST_P(CVMDKSparseExtentFilePreparedTest, PreparedReadTellsOfPendingChanges) {
    const auto extent = openExtent();
    writeAt(*extent, 0, grainOf(1));
    writeAt(*extent, 100, bytesOf("changed"));
    Bytes expected = grainOf(1);
    std::copy_n("changed", 7, expected.getData() + 100);
    extent->seek(0);
    Bytes prepared;
    extent->readPreparedGrainData(prepared);
    EXPECT_EQ(unprepare(prepared), expected);
}

TEST_P(CVMDKSparseExtentFilePreparedTest, RefusesTransfersBeyondTheEnd) {
    patchFile<uint64>(Field_Capacity, capacity / 512 - 1);
    const auto extent = openExtent();
    // Off a grain boundary as well: the end is looked at first.
    for (const int64 position : {capacity - grainSize, capacity - grainSize + 512, capacity - 512}) {
        extent->seek(position);
        const std::initializer_list<CProps::Entry> props = {{"uri", extentName},
                                                            {"position", toDecimal(position)},
                                                            {"grainSize", "4096"},
                                                            {"extentSize", toDecimal(capacity - 512)}};
        Bytes data = bytesOf("kept");
        EXPECT_LUM_ERROR(extent->readPreparedGrainData(data), CIOError, 3,
                         "Prepared grain read exceeds VMDK extent size.", props);
        EXPECT_EQ(data, bytesOf("kept"));
        EXPECT_LUM_ERROR(extent->writePreparedGrainData(prepare(grainOf(1))), CIOError, 3,
                         "Prepared grain write exceeds VMDK extent size.", props);
        EXPECT_EQ(extent->getPosition(), position);
    }
    EXPECT_EQ(getStoredContentID(), oldContentID);
    takeLog(); // of the footer, which holds another capacity now
}

TEST_P(CVMDKSparseExtentFilePreparedTest, RefusesTransfersOffAGrainBoundary) {
    const auto extent = openExtent();
    for (const int64 position : {int64{1}, grainSize - 1, grainSize + 512}) {
        extent->seek(position);
        const std::initializer_list<CProps::Entry> props = {
            {"uri", extentName}, {"position", toDecimal(position)}, {"grainSize", "4096"}};
        Bytes data = bytesOf("kept");
        EXPECT_LUM_ERROR(extent->readPreparedGrainData(data), CIOError, 11,
                         "Prepared grain read in VMDK extent file can only be done on a grain boundary.",
                         props);
        EXPECT_EQ(data, bytesOf("kept"));
        EXPECT_LUM_ERROR(extent->writePreparedGrainData(prepare(grainOf(1))), CIOError, 11,
                         "Prepared grain write in VMDK extent file can only be done on a grain boundary.",
                         props);
        EXPECT_EQ(extent->getPosition(), position);
    }
    EXPECT_EQ(getStoredContentID(), oldContentID);
}

TEST_P(CVMDKSparseExtentFilePreparedTest, LastGrainIsTransferred) {
    const auto extent = openExtent();
    extent->seek(capacity - grainSize);
    extent->writePreparedGrainData(prepare(grainOf(1)));
    EXPECT_EQ(extent->getPosition(), capacity);
    EXPECT_NE(getStoredContentID(), oldContentID);
    extent->seek(capacity - grainSize);
    Bytes prepared;
    extent->readPreparedGrainData(prepared);
    EXPECT_EQ(unprepare(prepared), grainOf(1));
}

TEST_P(CVMDKSparseExtentFilePreparedTest, RefusedDataChangeNothing) {
    const auto extent = openExtent();
    writeAt(*extent, 0, grainOf(1));
    extent->flushChanges();
    const int64 length = extent->getStream()->getLength();
    extent->seek(0);
    for (const int64 size : {int64{0}, int64{11}, 100 * grainSize})
        EXPECT_THROW(extent->writePreparedGrainData(Bytes(size)), CInvalidArgError) << size;
    EXPECT_EQ(extent->getPosition(), 0);
    EXPECT_EQ(readAt(*extent, 0, grainSize), grainOf(1));
    extent->flushChanges();
    EXPECT_EQ(extent->getStream()->getLength(), length);
}

TEST_P(CVMDKSparseExtentFilePreparedTest, TellsOfASeekThatWentAstray) {
    const P<IIOStream> stream = openExtent()->getStream();
    stream->seek(0);
    const P<CAstrayExtent> extent(new CAstrayExtent(stream.get(), IIOStream::Access_ReadWrite, 0, 1,
                                                    m_cache.get(), nullptr, m_updater.get(), nullptr, m_key,
                                                    m_iv));
    extent->shift = 512;
    const std::initializer_list<CProps::Entry> props = {{"uri", extentName},
                                                        {"position", "512"},
                                                        {"grainSize", "4096"},
                                                        {"toWrite", "3584"},
                                                        {"extentSize", toDecimal(capacity)}};
    Bytes data;
    EXPECT_LUM_ERROR(extent->readPreparedGrainData(data), CError, -1,
                     "Internal error: CVMDKSparseExtentFile::beginIOOp in "
                     "CVMDKSparseExtentFile::tryReadPreparedGrainData returned less than the grain size.",
                     props);
    extent->CVMDKSparseExtentFile::seek(0);
    extent->CVMDKSparseExtentFile::readPreparedGrainData(data); // the cursor is at the grain's end now
    extent->shift = 512 - grainSize;
    EXPECT_LUM_ERROR(extent->writePreparedGrainData(prepare(grainOf(1))), CError, -1,
                     "Internal error: CVMDKSparseExtentFile::beginIOOp in "
                     "CVMDKSparseExtentFile::writePreparedGrainData returned less than the grain size.",
                     props);
}

TEST_P(CVMDKSparseExtentFilePreparedTest, TellsOfASeekThatWentNowhere) {
    const P<IIOStream> stream = openExtent()->getStream();
    stream->seek(0);
    const P<CAstrayExtent> extent(new CAstrayExtent(stream.get(), IIOStream::Access_ReadWrite, 0, 1,
                                                    m_cache.get(), nullptr, m_updater.get(), nullptr, m_key,
                                                    m_iv));
    extent->seek(grainSize);
    Bytes prepared;
    extent->readPreparedGrainData(prepared);
    extent->goesNowhere = true;
    EXPECT_LUM_ERROR(extent->beginIOOp(1), CError, -1,
                     "Internal error. After seeking to grain at position 8192 there are still no bytes left "
                     "in the grain.",
                     {{"uri", extentName}});
}

TEST_P(CVMDKSparseExtentFilePreparedTest, TellsHowMuchGoesToTheGrain) {
    const P<IIOStream> stream = openExtent()->getStream();
    stream->seek(0);
    const P<CAstrayExtent> extent(new CAstrayExtent(stream.get(), IIOStream::Access_Read, 0, 1, m_cache.get(),
                                                    nullptr, nullptr, nullptr, m_key, m_iv));
    EXPECT_EQ(extent->beginIOOp(1), 1);
    EXPECT_EQ(extent->beginIOOp(INT64_MAX), grainSize);
    extent->seek(grainSize + 4000);
    EXPECT_EQ(extent->beginIOOp(96), 96);
    EXPECT_EQ(extent->beginIOOp(97), 96);
}

// --- Independence of the parent ---

TEST_P(CVMDKSparseExtentFilePreparedTest, MakesAGrainIndependentOfTheParent) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    const auto extent = openExtent({.startGrainIndex = 50, .fallback = provider.get()});
    extent->seek(123);
    const int64 prepared = extent->makeGrainIndependentOfParent(3);
    EXPECT_EQ(extent->getPosition(), 4 * grainSize);
    EXPECT_EQ(provider->preparedCalls, (TArray<CFakeDataProvider::Call>{{(50 + 3) * grainSize, grainSize}}));
    EXPECT_EQ(provider->lastPreparedWasCompressed, GetParam());
    EXPECT_EQ(prepared, prepare(CFakeDataProvider::contentsAt(53 * grainSize, grainSize)).getUsed());
    EXPECT_EQ(getStoredContentID(), oldContentID);

    EXPECT_EQ(extent->makeGrainIndependentOfParent(3), grainSize); // it is already
    EXPECT_EQ(extent->getPosition(), 4 * grainSize);
    EXPECT_EQ(provider->preparedCalls.size(), 1U);

    extent->setFallbackDataProvider(nullptr);
    EXPECT_EQ(readAt(*extent, 3 * grainSize, grainSize),
              CFakeDataProvider::contentsAt(53 * grainSize, grainSize));
    EXPECT_EQ(readAt(*extent, 4 * grainSize, grainSize), Bytes(grainSize));
}

TEST_P(CVMDKSparseExtentFilePreparedTest, NextTransferAfterMakingIndependentHitsTheNextGrain) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    for (IVMDKDataProvider* const fallback :
         {static_cast<IVMDKDataProvider*>(provider.get()), static_cast<IVMDKDataProvider*>(nullptr)}) {
        createExtent({.compressed = GetParam()});
        const auto extent = openExtent({.fallback = fallback});
        EXPECT_EQ(extent->makeGrainIndependentOfParent(3) > 0, fallback != nullptr);
        EXPECT_EQ(extent->getPosition(), 4 * grainSize);
        extent->write(grainOf(9).getData(), grainSize);
        extent->setFallbackDataProvider(nullptr);
        EXPECT_EQ(readAt(*extent, 4 * grainSize, grainSize), grainOf(9));
        EXPECT_EQ(readAt(*extent, 3 * grainSize, grainSize),
                  fallback ? CFakeDataProvider::contentsAt(3 * grainSize, grainSize) : Bytes(grainSize));
    }
}

TEST_P(CVMDKSparseExtentFilePreparedTest, PendingChangeOutlivesMakingIndependent) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    const auto extent = openExtent({.fallback = provider.get()});
    writeAt(*extent, 10, bytesOf("mine"));
    EXPECT_EQ(extent->makeGrainIndependentOfParent(0), grainSize);
    EXPECT_EQ(provider->preparedCalls.size(), 0U);
    EXPECT_EQ(readAt(*extent, 10, 4), bytesOf("mine"));
    EXPECT_EQ(readAt(*extent, 14, 100), CFakeDataProvider::contentsAt(14, 100));
}

TEST_P(CVMDKSparseExtentFilePreparedTest, RefusesToMakeGrainsOutsideIndependent) {
    const auto extent = openExtent();
    extent->seek(700);
    const auto expectRefusal = [&](int64 grainIndex, const char* position) {
        EXPECT_INVALID_ARG_ERROR(extent->makeGrainIndependentOfParent(grainIndex),
                                 "CVMDKSparseExtentFile::seek", String("Invalid position: ") + position,
                                 {{"uri", extentName}});
        EXPECT_EQ(extent->getPosition(), 700);
    };
    expectRefusal(-1, "-4096");
    expectRefusal(21, "86016");
    expectRefusal(INT64_MAX, "9223372036854775807");
    expectRefusal(INT64_MIN, "-9223372036854775808");
    expectRefusal(int64{1} << 52, "9223372036854775807"); // the product would be 0
}

TEST_P(CVMDKSparseExtentFilePreparedTest, FailureOfTheParentPassesThrough) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    const auto extent = openExtent({.fallback = provider.get()});
    provider->fails = true;
    EXPECT_LUM_ERROR(extent->makeGrainIndependentOfParent(3), CIOError, 1, "Parent fails");
    Bytes data(10);
    EXPECT_LUM_ERROR(extent->readPreparedGrainData(data), CIOError, 1, "Parent fails");
    EXPECT_LUM_ERROR(extent->read(data.getData(), 10), CIOError, 1, "Parent fails");
    EXPECT_LUM_ERROR(extent->isGrainWritten(), CIOError, 1, "Parent fails");
    EXPECT_EQ(extent->getPosition(), 3 * grainSize);
    provider->fails = false;
    EXPECT_GT(extent->makeGrainIndependentOfParent(3), 0);
}

TEST_P(CVMDKSparseExtentFilePreparedTest, TellsWhichGrainsAreWritten) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    const auto extent = openExtent({.startGrainIndex = 50, .fallback = provider.get()});
    provider->writtenPositions = {(50 + 2) * grainSize};
    writeAt(*extent, grainSize + 100, bytesOf("x"));
    EXPECT_EQ(extent->getPosition(), grainSize + 101);
    EXPECT_TRUE(extent->isGrainWritten());
    EXPECT_TRUE(extent->isGrainWrittenAndIndependentOfParent());
    EXPECT_TRUE(provider->writtenCalls.empty());
    extent->seek(2 * grainSize + 5);
    EXPECT_TRUE(extent->isGrainWritten());
    EXPECT_FALSE(extent->isGrainWrittenAndIndependentOfParent());
    extent->seek(3 * grainSize - 1);
    EXPECT_TRUE(extent->isGrainWritten());
    extent->seek(3 * grainSize);
    EXPECT_FALSE(extent->isGrainWritten());
    EXPECT_EQ(provider->writtenCalls, (TArray<int64>{52 * grainSize, 52 * grainSize, 53 * grainSize}));
    EXPECT_EQ(extent->getPosition(), 3 * grainSize);
    extent->setFallbackDataProvider(nullptr);
    extent->seek(2 * grainSize);
    EXPECT_FALSE(extent->isGrainWritten());
}

TEST_P(CVMDKSparseExtentFilePreparedTest, GrainStateIsThatOfThePositionBehindATransfer) {
    const auto extent = openExtent();
    writeAt(*extent, 0, grainOf(1));
    EXPECT_FALSE(extent->isGrainWritten()); // the position is in the next grain
    extent->seek(0);
    EXPECT_TRUE(extent->isGrainWritten());
    Bytes prepared;
    extent->readPreparedGrainData(prepared);
    EXPECT_FALSE(extent->isGrainWritten());
}

} // namespace tessel::test
