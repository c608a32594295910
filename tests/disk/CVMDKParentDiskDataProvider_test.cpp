// What a child is given of its parent, and when the parent is refused.

#include "tessel/CVMDKParentDiskDataProvider.h"

#include "CEventFileSystem.h"
#include "DiskTest.h"

using namespace tessel;
using namespace tessel::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class CVMDKParentDiskDataProviderTest : public DiskTest {
protected:
    P<CVMDKParentDiskDataProvider> makeProvider(unsigned int contentID, const char* reference = "parent.vmdk",
                                                const char* password = "", CVMDKDisk* parent = nullptr) {
        return new CVMDKParentDiskDataProvider(files(), uri("child.vmdk"), contentID, reference, 128,
                                               password, -1, m_cache.get(), parent);
    }
    /// For the parent as it is now.
    P<CVMDKParentDiskDataProvider> makeProvider(const char* password = "") {
        const unsigned int contentID =
            open(forReading, "parent.vmdk", password)->getDescriptor()->getContentID();
        return makeProvider(contentID, "parent.vmdk", password);
    }
    P<CVMDKDisk> createParent(const DiskOptions& options = {}) { return create(options, "parent.vmdk"); }

    static Bytes getData(IVMDKDataProvider& provider, int64 position, int64 size) {
        Bytes bytes(static_cast<std::size_t>(size), 0xAA);
        provider.getData(position, bytes.data(), static_cast<int>(size));
        return bytes;
    }
    TArray<CLogRecorder::Entry> openingFailed(const String& error) const {
        return {{ILogSink::Level_Error,
                 "Error while opening VMDK parent disk (parent URI: 'memory:/folder/parent.vmdk', child URI: "
                 "'memory:/folder/child.vmdk')",
                 error, ""}};
    }

    P<CVMDKGrainTableCache> m_cache{new CVMDKGrainTableCache};
};

} // namespace

// --- Where the parent is ---

TEST_F(CVMDKParentDiskDataProviderTest, ReferenceIsSeenFromTheChildsFolder) {
    const struct {
        const char* reference;
        const char* uri;
    } rows[] = {
        {"parent.vmdk", "memory:/folder/parent.vmdk"},
        {"sub/parent.vmdk", "memory:/folder/sub/parent.vmdk"},
        {"sub\\parent.vmdk", "memory:/folder/sub/parent.vmdk"},
        {"../parent.vmdk", "memory:/parent.vmdk"},
        {"./a b.vmdk", "memory:/folder/a%20b.vmdk"},
        {"memory:/else/where.vmdk", "memory:/else/where.vmdk"},
        {"/vm/disk.vmdk", "file:///vm/disk.vmdk"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(makeProvider(1, row.reference)->getParentDiskMainFileURI().toString(false), row.uri)
            << row.reference;
}

// --- When it is opened ---

TEST_F(CVMDKParentDiskDataProviderTest, ParentIsOpenedForReadingWhenItIsFirstNeeded) {
    createParent();
    const P<CEventFileSystem> recorder(new CEventFileSystem(m_memory.get()));
    m_files = recorder;
    const P<CVMDKParentDiskDataProvider> provider = makeProvider();
    recorder->takeEvents();
    EXPECT_EQ(provider->getParentDiskMainFileURI(), uri("parent.vmdk"));
    EXPECT_THAT(recorder->takeEvents(), IsEmpty());
    provider->isGrainWritten(0);
    EXPECT_THAT(recorder->takeOpeningEvents(),
                ElementsAre("open+ parent.vmdk.lock", "open parent.vmdk", "close parent.vmdk",
                            "open parent.vmdk", "close parent.vmdk", "open parent.vmdk"));
    getData(*provider, 0, 100);
    provider->ensureParentDiskOpen();
    EXPECT_THAT(recorder->takeOpeningEvents(), IsEmpty());
}

TEST_F(CVMDKParentDiskDataProviderTest, EachOperationOpensTheParent) {
    createParent();
    TBuffer<unsigned char> prepared;
    for (const auto& use : std::initializer_list<std::function<void(CVMDKParentDiskDataProvider&)>>{
             [](CVMDKParentDiskDataProvider& p) { getData(p, 0, 1); },
             [](CVMDKParentDiskDataProvider& p) { getData(p, 100 * MiB, 0); },
             [](CVMDKParentDiskDataProvider& p) { p.isGrainWritten(100 * MiB); },
             [&](CVMDKParentDiskDataProvider& p) { p.getPreparedGrainData(0, prepared, grainSize, false); },
             [](CVMDKParentDiskDataProvider& p) { p.ensureParentDiskOpen(); },
             [](CVMDKParentDiskDataProvider& p) { p.getParentDisk(); }}) {
        const P<CVMDKParentDiskDataProvider> provider = makeProvider();
        EXPECT_FALSE(exists("parent.vmdk.lock"));
        use(*provider);
        EXPECT_TRUE(exists("parent.vmdk.lock"));
    }
}

TEST_F(CVMDKParentDiskDataProviderTest, ParentThatIsGivenIsTakenAsItIs) {
    const P<CVMDKDisk> parent = createParent();
    const Bytes data = randomBytes(1, 1000);
    writeAt(*parent, 5000, data);
    // Neither the content ID nor the file is looked at.
    const P<CVMDKParentDiskDataProvider> provider =
        makeProvider(0x12345678, "missing.vmdk", "", parent.get());
    EXPECT_EQ(provider->getParentDisk(), parent);
    EXPECT_EQ(getData(*provider, 5000, 1000), data);
    EXPECT_EQ(parent->getPosition(), 6000);
    EXPECT_EQ(provider->getParentDiskMainFileURI(), uri("missing.vmdk"));
}

// --- Parents that are refused ---

TEST_F(CVMDKParentDiskDataProviderTest, MissingParentIsAnErrorEachTime) {
    const P<CVMDKParentDiskDataProvider> provider = makeProvider(1);
    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_FILE_SYSTEM_ERROR(getData(*provider, 0, 1), CFileSystemError::Problem_NotFound,
                                 "Cannot open file: No such file or directory",
                                 {{"uri", path("parent.vmdk")}});
        EXPECT_EQ(takeLog(), openingFailed("Cannot open file: No such file or directory"));
        EXPECT_THAT(listFiles(), IsEmpty());
    }
    createParent();
    EXPECT_THROW(provider->ensureParentDiskOpen(), CIOError); // there, but not the one
    takeLog();
}

TEST_F(CVMDKParentDiskDataProviderTest, ChangedParentIsRefusedWithBothContentIDs) {
    createParent();
    editDescriptor([](CVMDKDescriptor& descriptor) { descriptor.setContentID(0x0000BEEF); }, "parent.vmdk");
    const P<CVMDKParentDiskDataProvider> provider = makeProvider(0x00C0FFEE);
    TBuffer<unsigned char> prepared;
    const auto expectRefused = [&](const std::function<void()>& use) {
        EXPECT_LUM_ERROR(use(), CIOError, 5, "VMDK parent disk has changed, but a child disk depended on it.",
                         {{"parentURI", path("parent.vmdk")},
                          {"childURI", path("child.vmdk")},
                          {"expectedContentID", "00c0ffee"},
                          {"actualContentID", "0000beef"}});
        EXPECT_EQ(takeLog(), openingFailed("VMDK parent disk has changed, but a child disk depended on it."));
        EXPECT_FALSE(exists("parent.vmdk.lock"));
    };
    expectRefused([&] { getData(*provider, 0, 1); });
    expectRefused([&] { getData(*provider, 100 * MiB, 1); });
    expectRefused([&] { provider->isGrainWritten(0); });
    expectRefused([&] { provider->getPreparedGrainData(0, prepared, grainSize, false); });
    expectRefused([&] { provider->ensureParentDiskOpen(); });
    // A parent that is put back is taken again.
    editDescriptor([](CVMDKDescriptor& descriptor) { descriptor.setContentID(0x00C0FFEE); }, "parent.vmdk");
    EXPECT_EQ(getData(*provider, 0, 10), zeroBytes(10));
}

TEST_F(CVMDKParentDiskDataProviderTest, LockedParentIsRefused) {
    const P<CVMDKDisk> writer = createParent();
    const P<CVMDKParentDiskDataProvider> provider = makeProvider(writer->getDescriptor()->getContentID());
    EXPECT_FILE_SYSTEM_ERROR(getData(*provider, 0, 1), CFileSystemError::Problem_Locked,
                             "Cannot lock \"memory:/folder/parent.vmdk.lock\": It is locked by another user "
                             "or process.",
                             {{"uri", path("parent.vmdk.lock")}});
    EXPECT_EQ(takeLog().size(), 1U);
}

TEST_F(CVMDKParentDiskDataProviderTest, PasswordServesTheParent) {
    createParent({.password = "secret"});
    const Bytes data = randomBytes(1, 100);
    writeAt(*open(forWriting, "parent.vmdk", "secret"), 0, data);
    const unsigned int contentID = open(forReading, "parent.vmdk", "secret")->getDescriptor()->getContentID();
    EXPECT_EQ(getData(*makeProvider(contentID, "parent.vmdk", "secret"), 0, 100), data);
    const struct {
        const char* password;
        const char* message;
    } rows[] = {{"", "VMDK is encrypted but no password provided"},
                {"wrong", "Specified VMDK encryption password is not correct."}};
    for (const auto& row : rows) {
        EXPECT_LUM_ERROR(getData(*makeProvider(contentID, "parent.vmdk", row.password), 0, 1), CError, -1,
                         row.message, {{"uri", path("parent.vmdk")}});
        EXPECT_EQ(takeLog(), openingFailed(row.message));
    }
}

// --- Data ---

TEST_F(CVMDKParentDiskDataProviderTest, DataBehindTheParentsEndAreZeros) {
    const Bytes data = randomBytes(1, 8 * MiB);
    writeAt(*createParent(), 0, data);
    const P<CVMDKParentDiskDataProvider> provider = makeProvider();
    EXPECT_EQ(getData(*provider, 0, 8 * MiB), data);
    Bytes across = getData(*provider, 8 * MiB - 100, 300);
    EXPECT_EQ(Bytes(across.begin(), across.begin() + 100), Bytes(data.end() - 100, data.end()));
    EXPECT_EQ(Bytes(across.begin() + 100, across.end()), zeroBytes(200));
    EXPECT_EQ(getData(*provider, 8 * MiB - 1, 1), Bytes{data.back()});
    EXPECT_EQ(getData(*provider, 8 * MiB, 10), zeroBytes(10));
    EXPECT_EQ(getData(*provider, INT64_MAX - 10, 10), zeroBytes(10));
    EXPECT_EQ(getData(*provider, 8 * MiB, 0), Bytes());
    EXPECT_EQ(getData(*provider, 0, 0), Bytes());
}

TEST_F(CVMDKParentDiskDataProviderTest, KnowsWhichGrainsTheParentHas) {
    writeAt(*createParent(), 127 * grainBytes, randomBytes(1, 1));
    const P<CVMDKParentDiskDataProvider> provider = makeProvider();
    EXPECT_FALSE(provider->isGrainWritten(0));
    EXPECT_FALSE(provider->isGrainWritten(127 * grainBytes - 1));
    EXPECT_TRUE(provider->isGrainWritten(127 * grainBytes));
    EXPECT_TRUE(provider->isGrainWritten(8 * MiB - 1));
    EXPECT_FALSE(provider->isGrainWritten(8 * MiB));
    EXPECT_FALSE(provider->isGrainWritten(INT64_MAX));
}

// --- Prepared grains ---

TEST_F(CVMDKParentDiskDataProviderTest, PreparedGrainsAreThoseOfTheParent) {
    for (const bool compressed : {false, true}) {
        const Bytes data = randomBytes(1, 3 * grainBytes);
        writeAt(*createParent({.compressed = compressed}), 10 * grainBytes, data);
        const P<CVMDKParentDiskDataProvider> provider = makeProvider();
        const P<CVMDKDisk> parent = openForReading("parent.vmdk");
        TBuffer<unsigned char> prepared(7);
        TBuffer<unsigned char> expected;
        for (const int grain : {9, 12, 11, 10}) {
            provider->getPreparedGrainData(grain * grainBytes, prepared, grainSize, compressed);
            parent->seek(grain * grainBytes);
            parent->readPreparedGrainData(expected);
            EXPECT_EQ(prepared, expected);
        }
    }
}

TEST_F(CVMDKParentDiskDataProviderTest, PreparedGrainsBehindTheEndAreZerosInTheirPlace) {
    for (const bool compressed : {false, true}) {
        createParent({.compressed = compressed});
        const P<CVMDKParentDiskDataProvider> provider = makeProvider();
        for (const int64 grain : {int64{128}, int64{1000000}, int64{129}}) {
            TBuffer<unsigned char> prepared(7);
            provider->getPreparedGrainData(grain * grainBytes, prepared, grainSize, compressed);
            EXPECT_EQ(unprepare(*provider->getParentDisk(), prepared), zeroBytes(grainBytes));
            if (!compressed)
                continue;
            // The record begins with the grain's first sector.
            int64 sector = 0;
            for (int i = 7; i >= 0; --i)
                sector = sector * 256 + prepared[i];
            EXPECT_EQ(sector, grain * 128);
        }
    }
}

TEST_F(CVMDKParentDiskDataProviderTest, GrainsOfAnotherFormAreRefused) {
    const struct {
        bool compressed;
        int64 parentGrainSectors;
        int wantedSize;
        bool wantedCompressed;
        const char* expected[2];
        const char* actual[2];
    } rows[] = {
        {false, 128, 32768, false, {"32768", "false"}, {"65536", "false"}},
        {false, 128, 65536, true, {"65536", "true"}, {"65536", "false"}},
        {true, 128, 65536, false, {"65536", "false"}, {"65536", "true"}},
        {false, 16, 65536, false, {"65536", "false"}, {"8192", "false"}},
        {true, 16, 65536, false, {"65536", "false"}, {"8192", "true"}},
    };
    for (const auto& row : rows) {
        putExtent("parent-s00000.vmdk", 1024, row.parentGrainSectors, row.compressed);
        putSplitDescriptor(
            {"RW " + std::to_string(1024 * row.parentGrainSectors) + " SPARSE \"parent-s00000.vmdk\""},
            "parent.vmdk");
        const Bytes data = randomBytes(1, 1000);
        writeAt(*open(forWriting, "parent.vmdk"), 77777, data);
        const P<CVMDKParentDiskDataProvider> provider = makeProvider();
        TBuffer<unsigned char> prepared(7);
        for (const int64 position : {int64{0}, 100 * GiB})
            EXPECT_LUM_ERROR(
                provider->getPreparedGrainData(position, prepared, row.wantedSize, row.wantedCompressed),
                CError, -1, "Parent disk is incompatible with diff disk.",
                {{"parentURI", path("parent.vmdk")},
                 {"childURI", path("child.vmdk")},
                 {"expectedGrainSize", row.expected[0]},
                 {"expectedCompressed", row.expected[1]},
                 {"actualGrainSize", row.actual[0]},
                 {"actualCompressed", row.actual[1]}});
        // Bytes are served all the same.
        EXPECT_EQ(getData(*provider, 77777, 1000), data);
        EXPECT_TRUE(provider->isGrainWritten(77777));
        m_memory->deleteFile(uri("parent-s00000.vmdk"), false);
    }
}

TEST_F(CVMDKParentDiskDataProviderTest, PartialLastGrainIsServedAsBytesOnly) {
    putExtent("parent-s00000.vmdk", 2);
    putSplitDescriptor({"RW 200 SPARSE \"parent-s00000.vmdk\""}, "parent.vmdk");
    const Bytes data = randomBytes(1, 200 * 512);
    writeAt(*open(forWriting, "parent.vmdk"), 0, data);
    const P<CVMDKParentDiskDataProvider> provider = makeProvider();
    Bytes expected(data.begin() + grainSize, data.end());
    expected.resize(static_cast<std::size_t>(grainSize));
    EXPECT_EQ(getData(*provider, grainBytes, grainBytes), expected);
    TBuffer<unsigned char> prepared;
    EXPECT_LUM_ERROR(provider->getPreparedGrainData(grainBytes, prepared, grainSize, false), CIOError, 3,
                     "Prepared grain read exceeds VMDK disk size.",
                     {{"mainFileURI", path("parent.vmdk")},
                      {"position", "65536"},
                      {"grainSize", "65536"},
                      {"diskSize", "102400"}});
}
