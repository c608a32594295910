#include "tessel/CVMDKOnDemandExtentFile.h"

#include "CFakeDataProvider.h"
#include "ExtentFixture.h"
#include "tessel/VMDKEmptyExtentFile.h"

namespace tessel::test {
namespace {

constexpr int64 grainSize = 4096;
constexpr int64 grainCount = 20;
constexpr int64 capacity = grainCount * grainSize;
constexpr int64 startGrain = 100;

class CVMDKOnDemandExtentFileTest : public ExtentTest, public ::testing::WithParamInterface<bool> {
protected:
    struct UOpening {
        IIOStream::Access access = IIOStream::Access_ReadWrite;
        IVMDKDataProvider* fallback = nullptr;
        int64 capacitySectors = capacity / 512;
        bool encrypted = false;
    };

    P<CVMDKOnDemandExtentFile> open(const UOpening& opening) {
        return new CVMDKOnDemandExtentFile(m_faults.get(), extentURI, opening.access, startGrain,
                                           grainSize / 512, opening.capacitySectors, 512, GetParam(), 1,
                                           opening.fallback, m_cache.get(), m_updater.get(),
                                           opening.encrypted ? m_cipher.get() : nullptr, m_key, m_iv,
                                           opening.encrypted ? m_keyHash : Bytes());
    }
    P<CVMDKOnDemandExtentFile> open() { return open(UOpening{}); }

    bool hasFile() const { return m_memory->fileExists(extentURI); }

    static Bytes prepareZeros() {
        const P<CVMDKDataPreparer> preparer(new CVMDKDataPreparer(grainSize / 512, GetParam(), 1));
        const P<Bytes> data(new Bytes(grainSize));
        const P<Bytes> aux(new Bytes);
        return *preparer->prepareGrainData(data.get(), 0, aux.get());
    }
};

std::string kindOf(const ::testing::TestParamInfo<bool>& info) {
    return info.param ? "Compressed" : "Plain";
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKOnDemandExtentFileTest, ::testing::Bool(), kindOf);

// --- Without a file ---

TEST_P(CVMDKOnDemandExtentFileTest, ReadingMakesNoFile) {
    const auto extent = open();
    EXPECT_TRUE(extent->isNull());
    EXPECT_EQ(extent->getURI(), extentURI);
    EXPECT_EQ(extent->getStartGrainIndex(), startGrain);
    EXPECT_EQ(extent->getGrainSizeSectors(), grainSize / 512);
    EXPECT_EQ(extent->getCompressed(), GetParam());
    EXPECT_EQ(extent->createDataPreparer()->doesAnything(), GetParam());
    EXPECT_EQ(readAt(*extent, 0, capacity), Bytes(capacity));
    EXPECT_EQ(extent->getPosition(), capacity);
    extent->seek(grainSize);
    Bytes prepared;
    extent->readPreparedGrainData(prepared);
    EXPECT_EQ(extent->getPosition(), 2 * grainSize);
    EXPECT_FALSE(extent->isGrainWritten());
    EXPECT_FALSE(extent->isGrainWrittenAndIndependentOfParent());
    extent->flushChanges();
    EXPECT_EQ(extent->gatherSpaceInfo()->getHeaderSize(), 0);
    EXPECT_TRUE(extent->isNull());
    EXPECT_FALSE(hasFile());
    EXPECT_EQ(getStoredContentID(), oldContentID);
}

TEST_P(CVMDKOnDemandExtentFileTest, ReadsTheParentsData) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    const auto extent = open({.fallback = provider.get()});
    EXPECT_EQ(readAt(*extent, 1000, 5000),
              CFakeDataProvider::contentsAt(startGrain * grainSize + 1000, 5000));
    EXPECT_FALSE(hasFile());
    extent->setFallbackDataProvider(nullptr);
    EXPECT_EQ(readAt(*extent, 1000, 5000), Bytes(5000));
}

TEST_P(CVMDKOnDemandExtentFileTest, ReadOnlyExtentRefusesChanges) {
    const auto extent = open({.access = IIOStream::Access_Read});
    extent->seek(grainSize);
    const auto expectRefusals = [&] {
        const String message(
            "Internal error: VMDK extent file is about to be changed, but it was not opened for writing.");
        EXPECT_LUM_ERROR(extent->write("x", 1), CError, -1, message, {{"uri", extentName}});
        EXPECT_LUM_ERROR(extent->writePreparedGrainData(prepareZeros()), CError, -1, message,
                         {{"uri", extentName}});
        EXPECT_LUM_ERROR(extent->makeGrainIndependentOfParent(0), CError, -1, message, {{"uri", extentName}});
    };
    expectRefusals();
    EXPECT_TRUE(extent->isNull());
    EXPECT_FALSE(hasFile());
    EXPECT_EQ(extent->getPosition(), grainSize);
    EXPECT_EQ(readAt(*extent, 0, 10), Bytes(10));
}

// --- The first change ---

TEST_P(CVMDKOnDemandExtentFileTest, FirstWriteMakesTheFileAndGoesOnAtThePosition) {
    auto extent = open();
    extent->seek(5000);
    extent->write(patternBytes(10000).getData(), 10000);
    EXPECT_EQ(extent->getPosition(), 15000);
    EXPECT_FALSE(extent->isNull());
    EXPECT_TRUE(hasFile());
    EXPECT_NE(getStoredContentID(), oldContentID);
    EXPECT_EQ(readAt(*extent, 5000, 10000), patternBytes(10000));
    EXPECT_EQ(readAt(*extent, 0, 5000), Bytes(5000));
    extent = nullptr;
    EXPECT_EQ(readAt(*openExtent(), 5000, 10000), patternBytes(10000));
    extent = open();
    EXPECT_FALSE(extent->isNull());
    EXPECT_EQ(extent->getPosition(), 0);
    EXPECT_EQ(readAt(*extent, 5000, 10000), patternBytes(10000));
}

TEST_P(CVMDKOnDemandExtentFileTest, FileIsTheEmptyExtentThatItStandsFor) {
    auto extent = open();
    extent->write(nullptr, 0);
    EXPECT_FALSE(extent->isNull());
    extent = nullptr;
    const Bytes made = loadFile();
    createExtent({.compressed = GetParam(), .grainCount = grainCount, .grainSizeSectors = grainSize / 512});
    EXPECT_EQ(made, loadFile());
}

TEST_P(CVMDKOnDemandExtentFileTest, FirstPreparedWriteMakesTheFile) {
    const auto extent = open();
    extent->seek(3 * grainSize);
    extent->writePreparedGrainData(prepareZeros());
    EXPECT_EQ(extent->getPosition(), 4 * grainSize);
    extent->seek(3 * grainSize);
    EXPECT_TRUE(extent->isGrainWrittenAndIndependentOfParent());
    extent->seek(4 * grainSize);
    EXPECT_FALSE(extent->isGrainWritten());
    EXPECT_TRUE(hasFile());
}

TEST_P(CVMDKOnDemandExtentFileTest, MakingAGrainIndependentMakesTheFile) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    const auto extent = open({.fallback = provider.get()});
    EXPECT_GT(extent->makeGrainIndependentOfParent(3), 0);
    EXPECT_EQ(extent->getPosition(), 4 * grainSize);
    EXPECT_TRUE(hasFile());
    EXPECT_EQ(getStoredContentID(), oldContentID);
    extent->setFallbackDataProvider(nullptr);
    EXPECT_EQ(readAt(*extent, 3 * grainSize, grainSize),
              CFakeDataProvider::contentsAt((startGrain + 3) * grainSize, grainSize));
    EXPECT_EQ(readAt(*extent, 4 * grainSize, grainSize), Bytes(grainSize));
}

TEST_P(CVMDKOnDemandExtentFileTest, NewFileTakesOverTheProviderThatIsSetThen) {
    const P<CFakeDataProvider> provider(new CFakeDataProvider);
    const auto extent = open();
    extent->setFallbackDataProvider(provider.get());
    writeAt(*extent, 10, bytesOf("own"));
    EXPECT_EQ(readAt(*extent, 0, 10), CFakeDataProvider::contentsAt(startGrain * grainSize, 10));
    EXPECT_EQ(readAt(*extent, grainSize, 10),
              CFakeDataProvider::contentsAt((startGrain + 1) * grainSize, 10));
}

TEST_P(CVMDKOnDemandExtentFileTest, PositionAtTheEndSurvives) {
    // Of one whole table, behind whose last grain the directory knows none.
    const auto extent = open({.capacitySectors = 512 * grainSize / 512});
    const int64 end = 512 * grainSize;
    extent->seek(end);
    EXPECT_EQ(extent->makeGrainIndependentOfParent(0), 0);
    EXPECT_EQ(extent->getPosition(), grainSize);

    m_memory->deleteFile(extentURI, false);
    const auto other = open({.capacitySectors = 512 * grainSize / 512});
    other->seek(end);
    other->write(nullptr, 0);
    EXPECT_FALSE(other->isNull());
    EXPECT_EQ(other->getPosition(), end);
    EXPECT_LUM_ERROR(other->write("x", 1), CIOError, 3, "Write exceeded VMDK extent size.",
                     {{"uri", extentName}, {"position", toDecimal(end)}, {"bytesToWrite", "1"}});
    EXPECT_EQ(readAt(*other, 0, 100), Bytes(100));
}

TEST_P(CVMDKOnDemandExtentFileTest, RefusalsOfTheNewFileComeFromIt) {
    const auto extent = open();
    extent->seek(capacity - 1);
    EXPECT_LUM_ERROR(extent->write("xy", 2), CIOError, 3, "Write exceeded VMDK extent size.",
                     {{"uri", extentName}, {"position", toDecimal(capacity - 1)}, {"bytesToWrite", "2"}});
    EXPECT_FALSE(extent->isNull());
    EXPECT_EQ(extent->getPosition(), capacity - 1);
}

TEST_P(CVMDKOnDemandExtentFileTest, MakesAnEncryptedFile) {
    auto extent = open({.encrypted = true});
    writeAt(*extent, 100, patternBytes(5000));
    extent = nullptr;
    EXPECT_EQ(loadNumber(Field_Magic), CVMDKSparseExtentHeader::magicNumberEncrypted);
    EXPECT_EQ(readAt(*open({.encrypted = true}), 100, 5000), patternBytes(5000));
    EXPECT_LUM_ERROR(open(), CInvalidArgError, -1,
                     "VMDK extent file is encrypted but no cipher object was specified.",
                     {{"uri", extentName}});
}

TEST_P(CVMDKOnDemandExtentFileTest, FileThatAppearedMeanwhileIsOpened) {
    const auto extent = open();
    EXPECT_EQ(readAt(*extent, 0, 100), Bytes(100));
    createExtent({.compressed = GetParam()});
    {
        const auto other = openExtent();
        writeAt(*other, 0, patternBytes(100));
    }
    EXPECT_EQ(readAt(*extent, 0, 100), Bytes(100)); // nobody looked yet
    writeAt(*extent, 200, bytesOf("second"));
    EXPECT_EQ(readAt(*extent, 0, 100), patternBytes(100));
    EXPECT_EQ(readAt(*extent, 200, 6), bytesOf("second"));
}

// --- What goes wrong ---

TEST_P(CVMDKOnDemandExtentFileTest, SizeOfNoWholeNumberOfGrainsIsRefusedBeforeAFileIsMade) {
    const auto extent = open({.capacitySectors = capacity / 512 + 5});
    extent->seek(77);
    const std::initializer_list<CProps::Entry> props = {
        {"uri", extentName}, {"capacity", "165"}, {"grainSize", "8"}};
    const String message("VMDK extent file cannot be created: its size of 165 sectors is no whole number of "
                         "grains (grain size: 8 sectors).");
    EXPECT_LUM_ERROR(extent->write("x", 1), CIOError, 5, message, props);
    EXPECT_LUM_ERROR(extent->writePreparedGrainData(prepareZeros()), CIOError, 5, message, props);
    EXPECT_LUM_ERROR(extent->makeGrainIndependentOfParent(0), CIOError, 5, message, props);
    EXPECT_TRUE(extent->isNull());
    EXPECT_FALSE(hasFile());
    EXPECT_EQ(extent->getPosition(), 77);
    EXPECT_EQ(readAt(*extent, capacity, 5 * 512), Bytes(5 * 512));
}

TEST_P(CVMDKOnDemandExtentFileTest, FailedCreationLeavesNoFileAndIsTriedAgain) {
    const auto extent = open();
    extent->seek(77);
    m_faults->addRule(
        {.operation = FaultRule::Write, .kind = FaultRule::FullDisk, .fileSuffix = "s001.vmdk"});
    const auto error = catchError([&] { extent->write("x", 1); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getMessage(), "Cannot write to file: Injected fault");
    EXPECT_EQ(error->getCode(), 8);
    EXPECT_EQ(takeLog().size(), 1U);
    EXPECT_TRUE(extent->isNull());
    EXPECT_FALSE(hasFile());
    EXPECT_EQ(extent->getPosition(), 77);
    extent->write("x", 1);
    EXPECT_EQ(readAt(*extent, 77, 1), bytesOf("x"));
}

TEST_P(CVMDKOnDemandExtentFileTest, FailedOpeningLeavesTheNullExtentAndIsTriedAgain) {
    const auto extent = open();
    extent->seek(77);
    // The first opening is that of the creation.
    m_faults->addRule({.operation = FaultRule::Open, .fileSuffix = "s001.vmdk", .nth = 2});
    EXPECT_FILE_SYSTEM_ERROR(extent->write("x", 1), CFileSystemError::Problem_AccessDenied,
                             "Cannot open file: Injected fault", {{"uri", extentName}});
    EXPECT_TRUE(extent->isNull());
    EXPECT_TRUE(hasFile());
    EXPECT_EQ(extent->getPosition(), 77);
    EXPECT_EQ(readAt(*extent, 0, 10), Bytes(10));
    extent->seek(77);
    m_faults->clearRules();
    // The file that was made is opened, and not made anew.
    m_journal->start(extentURI);
    extent->write("x", 1);
    EXPECT_EQ(m_journal->getEventCount(), 0U);
    EXPECT_EQ(extent->getPosition(), 78);
    EXPECT_EQ(readAt(*extent, 77, 1), bytesOf("x"));
}

TEST_P(CVMDKOnDemandExtentFileTest, FileThatCannotBeUsedLeavesTheNullExtent) {
    const auto extent = open();
    extent->seek(77);
    storeFile(Bytes(1000));
    EXPECT_LUM_ERROR(extent->write("x", 1), CIOError, 5, "Invalid magic number in VMDK sparse header",
                     {{"num", "0"}});
    EXPECT_TRUE(extent->isNull());
    EXPECT_EQ(extent->getPosition(), 77);
    EXPECT_EQ(loadFile(), Bytes(1000));
    EXPECT_EQ(readAt(*extent, 0, 10), Bytes(10));
    m_memory->deleteFile(extentURI, false);
    writeAt(*extent, 77, bytesOf("x"));
    EXPECT_EQ(readAt(*extent, 77, 1), bytesOf("x"));
}

TEST_P(CVMDKOnDemandExtentFileTest, FileOfAnotherDiskIsRefusedAndLeftAsItIs) {
    struct Row {
        UExtentShape shape;
        const char* grainSize;
        const char* capacity;
    };
    for (const Row& row :
         {Row{{.compressed = GetParam(), .grainCount = 10, .grainSizeSectors = 16}, "16", "160"},
          Row{{.compressed = GetParam(), .grainCount = grainCount - 1}, "8", "152"},
          Row{{.compressed = !GetParam()}, "8", "160"}}) {
        const auto putStranger = [&] {
            createExtent(row.shape);
            Bytes file = loadFile();
            file.append(patternBytes(512).getData(), 512); // its trail, if any, is not at the end
            storeFile(file);
            return file;
        };
        const String kind = toText(row.shape.compressed);
        const std::initializer_list<CProps::Entry> props = {{"uri", extentName},
                                                            {"grainSize", row.grainSize},
                                                            {"compressed", kind},
                                                            {"capacity", row.capacity}};
        const String message = String("VMDK extent file does not belong to this disk (grain size: ") +
                               row.grainSize + " sectors, expected: 8; compressed: " + kind +
                               ", expected: " + toText(GetParam()) + "; capacity: " + row.capacity +
                               " sectors, expected at least: 160).";
        Bytes stranger = putStranger();
        EXPECT_LUM_ERROR(open(), CIOError, 5, message, props);
        EXPECT_EQ(loadFile(), stranger);

        m_memory->deleteFile(extentURI, false);
        {
            const auto extent = open();
            extent->seek(77);
            stranger = putStranger();
            EXPECT_LUM_ERROR(extent->write("x", 1), CIOError, 5, message, props);
            EXPECT_TRUE(extent->isNull());
            EXPECT_EQ(extent->getPosition(), 77);
        }
        EXPECT_EQ(loadFile(), stranger);
        EXPECT_EQ(takeLog().size(), row.shape.compressed ? 2U : 0U) << "of the trail";
        m_memory->deleteFile(extentURI, false);
    }
}

TEST_P(CVMDKOnDemandExtentFileTest, FileWhoseGrainCannotBeOpenedLeavesTheNullExtentInItsPlace) {
    const auto extent = open({.capacitySectors = 1536 * grainSize / 512});
    extent->seek(600 * grainSize + 5);
    createExtent({.compressed = GetParam(), .grainCount = 1536});
    patchFile<uint32>(int64{loadNumber(Field_Directory)} * 512 + 4, 99999);
    EXPECT_LUM_ERROR(extent->write("x", 1), CIOError, 5,
                     "VMDK grain table 1 lies behind the end of the file (sector: 99999).",
                     {{"uri", extentName}, {"tableIndex", "1"}, {"tablePosition", "99999"}});
    EXPECT_TRUE(extent->isNull());
    EXPECT_EQ(extent->getPosition(), 600 * grainSize + 5);
    EXPECT_EQ(getStoredContentID(), oldContentID);
    writeAt(*extent, 0, bytesOf("elsewhere"));
    EXPECT_FALSE(extent->isNull());
    EXPECT_EQ(readAt(*extent, 0, 9), bytesOf("elsewhere"));
}

TEST_P(CVMDKOnDemandExtentFileTest, RefusedPreparedDataMakeNoFile) {
    const auto extent = open();
    extent->seek(grainSize);
    for (const int64 size : {int64{0}, int64{11}, 3 * grainSize})
        EXPECT_THROW(extent->writePreparedGrainData(Bytes(size)), CInvalidArgError) << size;
    EXPECT_INVALID_ARG_ERROR(extent->writePreparedGrainData(Bytes()), "CVMDKGrain::writePreparedGrainData",
                             "CVMDKGrain::writePreparedGrainData called with zero-length prepared data.",
                             {{"uri", extentName}});
    EXPECT_TRUE(extent->isNull());
    EXPECT_FALSE(hasFile());
    EXPECT_EQ(extent->getPosition(), grainSize);
    EXPECT_EQ(getStoredContentID(), oldContentID);

    const auto readOnly = open({.access = IIOStream::Access_Read});
    EXPECT_LUM_ERROR(
        readOnly->writePreparedGrainData(Bytes(11)), CError, -1,
        "Internal error: VMDK extent file is about to be changed, but it was not opened for writing.",
        {{"uri", extentName}});
}

TEST_P(CVMDKOnDemandExtentFileTest, ExistingFileIsOpenedAtOnce) {
    createExtent({.compressed = GetParam()});
    const auto readOnly = open({.access = IIOStream::Access_Read});
    EXPECT_FALSE(readOnly->isNull());
    EXPECT_LUM_ERROR(
        readOnly->write("x", 1), CError, -1,
        "Internal error: VMDK extent file is about to be changed, but it was not opened for writing.",
        {{"uri", extentName}});
    const auto extent = open();
    EXPECT_FALSE(extent->isNull());
    writeAt(*extent, 0, patternBytes(100));
    extent->flushChanges();
    EXPECT_EQ(extent->gatherSpaceInfo()->getPayloadSize(), grainSize);
    EXPECT_EQ(readAt(*openExtent({.access = IIOStream::Access_Read}), 0, 100), patternBytes(100));
}

TEST_P(CVMDKOnDemandExtentFileTest, FileThatWasLeftHalfMadeCountsAsMissingAndIsMadeAnew) {
    m_journal->start(extentURI);
    createEmptyVMDKSparseExtentFile(m_journal.get(), extentURI, GetParam(), grainCount, grainSize / 512,
                                    Bytes(2048), nullptr, 0, Bytes());
    const std::size_t total = m_journal->getEventCount();
    int halfMade = 0;
    for (std::size_t count = 0; count <= total; ++count)
        for (const bool keepsAll : {true, false}) {
            SCOPED_TRACE(count);
            storeFile(m_journal->replay(count, [&](const CJournalFileSystem::Event& event) {
                return keepsAll ? event.data.getUsed() : int64{0};
            }));
            {
                const auto extent = open({.access = IIOStream::Access_Read});
                halfMade += extent->isNull() ? 1 : 0;
                EXPECT_EQ(readAt(*extent, 0, 10), Bytes(10));
            }
            const auto extent = open();
            writeAt(*extent, 77, bytesOf("x"));
            extent->flushChanges();
            EXPECT_EQ(readAt(*openExtent({.access = IIOStream::Access_Read}), 77, 1), bytesOf("x"));
        }
    EXPECT_GT(halfMade, 5);
    EXPECT_LT(halfMade, static_cast<int>(2 * total));
}

TEST_P(CVMDKOnDemandExtentFileTest, FileWithDataIsNeverTakenForAHalfMadeOne) {
    createExtent({.compressed = GetParam(), .grainCount = grainCount});
    EXPECT_FALSE(isHalfMadeVMDKSparseExtentFile(m_memory.get(), extentURI));
    writeAt(*openExtent(), 0, patternBytes(100));
    Bytes file = loadFile();
    for (int64 i = 0; i < 512; ++i)
        file[i] = 0;
    storeFile(file);
    EXPECT_FALSE(isHalfMadeVMDKSparseExtentFile(m_memory.get(), extentURI));
    EXPECT_LUM_ERROR(open(), CIOError, 5, "Invalid magic number in VMDK sparse header", {{"num", "0"}});
}

TEST_P(CVMDKOnDemandExtentFileTest, ExistingFileThatCannotBeOpenedIsAnError) {
    createExtent({.compressed = GetParam()});
    m_faults->addRule({.operation = FaultRule::Open, .fileSuffix = "s001.vmdk"});
    EXPECT_FILE_SYSTEM_ERROR(open(), CFileSystemError::Problem_AccessDenied,
                             "Cannot open file: Injected fault", {{"uri", extentName}});
}

} // namespace tessel::test
