// Chains of disks.

#include "DiskTest.h"

using namespace tessel;
using namespace tessel::test;

namespace {

class CVMDKDiskParentsTest : public DiskTest {
protected:
    unsigned int contentIDOf(const String& name, const char* password = "") {
        return open(forReading, name, password)->getDescriptor()->getContentID();
    }
    /// A child of `parent`, of the same size unless told otherwise.
    P<CVMDKDisk> createChild(const String& name, const String& parent, DiskOptions options = {}) {
        options.parentPath = parent;
        options.parentID = contentIDOf(parent, options.password);
        return create(options, name);
    }
    /// A disk that names itself or another as its parent, whatever that is.
    void putDiskWithParent(const String& name, const String& parent, unsigned int parentID = 0x12345678) {
        create({}, name);
        editDescriptor(
            [&](CVMDKDescriptor& descriptor) {
                descriptor.setContentID(0x12345678);
                descriptor.setParentContentID(parentID);
                if (parentID != noParent)
                    descriptor.setParentFileNameHint(parent);
            },
            name);
    }
    static String numbered(int number) { return "disk" + toDecimal(number) + ".vmdk"; }
    /// Disks numbered from 0, the youngest, on; the oldest has no parent and holds `data` at its start.
    void putChain(int length, const Bytes& data) {
        for (int i = 0; i < length; ++i)
            putDiskWithParent(numbered(i), numbered(i + 1), i + 1 < length ? 0x12345678 : noParent);
        const P<CVMDKDisk> oldest = open(forWriting, numbered(length - 1));
        oldest->setContentIDUpdatesEnabled(false);
        writeAt(*oldest, 0, data);
    }
};

} // namespace

// --- Reading and writing ---

TEST_F(CVMDKDiskParentsTest, ChildShowsItsParentUntilItIsWritten) {
    const Bytes old = randomBytes(1, 8 * MiB);
    writeAt(*create({}, "parent.vmdk"), 0, old);
    const P<CVMDKDisk> child = createChild("child.vmdk", "parent.vmdk");
    EXPECT_EQ(child->getParentDiskMainURI(), uri("parent.vmdk"));
    EXPECT_EQ(readAll(*child), old);

    Bytes model = old;
    const Bytes fresh = randomBytes(2, 100000);
    writeAt(*child, 1234567, fresh);
    std::copy(fresh.begin(), fresh.end(), model.begin() + 1234567);
    EXPECT_EQ(readAll(*child), model);
    EXPECT_EQ(readAll(*openForReading("parent.vmdk")), old);
}

TEST_F(CVMDKDiskParentsTest, PartOfAGrainIsWrittenOverTheParentsRest) {
    for (const bool compressed : {false, true}) {
        const Bytes old = randomBytes(1, grainBytes);
        writeAt(*create({.compressed = compressed}, "parent.vmdk"), 5 * grainBytes, old);
        P<CVMDKDisk> child = createChild("child.vmdk", "parent.vmdk", {.compressed = compressed});
        Bytes model = old;
        writeAt(*child, 5 * grainBytes + 100, Bytes(10, 'x'));
        std::fill_n(model.begin() + 100, 10, 'x');
        EXPECT_EQ(readAt(*child, 5 * grainBytes, grainBytes), model);
        child = nullptr;
        EXPECT_EQ(readAt(*openForReading("child.vmdk"), 5 * grainBytes, grainBytes), model);
    }
}

TEST_F(CVMDKDiskParentsTest, ReadThatTheChildHoldsNeverOpensTheParent) {
    create({}, "parent.vmdk");
    writeAt(*createChild("child.vmdk", "parent.vmdk"), 3 * grainBytes, randomBytes(1, grainBytes));
    m_memory->deleteFile(uri("parent.vmdk"), false);
    const P<CVMDKDisk> child = open(forWriting, "child.vmdk");
    EXPECT_EQ(readAt(*child, 3 * grainBytes, grainBytes), randomBytes(1, grainBytes));
    child->seek(3 * grainBytes);
    EXPECT_TRUE(child->isGrainWritten());
    EXPECT_TRUE(child->isGrainWrittenAndIndependentOfParent());
    writeAt(*child, 4 * grainBytes, randomBytes(2, grainBytes)); // a whole grain needs nothing of it
    EXPECT_EQ(readAt(*child, 4 * grainBytes, grainBytes), randomBytes(2, grainBytes));
    unsigned char byte = 0;
    EXPECT_THROW(child->read(&byte, 1), CFileSystemError);
    EXPECT_EQ(takeLog().size(), 1U);
}

TEST_F(CVMDKDiskParentsTest, ChangedParentIsToldAtTheFirstReadThatNeedsIt) {
    writeAt(*create({}, "parent.vmdk"), 0, randomBytes(1, 10));
    createChild("child.vmdk", "parent.vmdk");
    const String expectedID = toHexString(contentIDOf("parent.vmdk"));
    writeAt(*open(forWriting, "parent.vmdk"), 0, randomBytes(2, 10));
    const String actualID = toHexString(contentIDOf("parent.vmdk"));
    EXPECT_NE(expectedID, actualID);
    const P<CVMDKDisk> child = openForReading("child.vmdk");
    unsigned char byte = 0;
    EXPECT_LUM_ERROR(child->read(&byte, 1), CIOError, 5,
                     "VMDK parent disk has changed, but a child disk depended on it.",
                     {{"parentURI", path("parent.vmdk")},
                      {"childURI", path("child.vmdk")},
                      {"expectedContentID", expectedID},
                      {"actualContentID", actualID}});
    EXPECT_EQ(takeLog().size(), 1U);
}

TEST_F(CVMDKDiskParentsTest, ChildLargerThanItsParentIsZerosBehindIt) {
    const Bytes old = randomBytes(1, 8 * MiB);
    writeAt(*create({}, "parent.vmdk"), 0, old);
    for (const bool compressed : {false, true}) {
        const P<CVMDKDisk> child =
            createChild("child.vmdk", "parent.vmdk", {.size = 10 * MiB, .compressed = compressed});
        Bytes model = old;
        model.resize(10 * MiB);
        EXPECT_EQ(readAll(*child), model);
        writeAt(*child, 9 * MiB, randomBytes(3, 1000));
        const Bytes fresh = randomBytes(3, 1000);
        std::copy(fresh.begin(), fresh.end(), model.begin() + 9 * MiB);
        EXPECT_EQ(readAll(*child), model);
        child->seek(8 * MiB);
        EXPECT_FALSE(child->isGrainWritten());
    }
}

TEST_F(CVMDKDiskParentsTest, ParentThatEndsWithinAGrainIsFilledUpWithZeros) {
    putExtent("parent-s00000.vmdk", 128);
    putSplitDescriptor({"RW 16200 SPARSE \"parent-s00000.vmdk\""}, "parent.vmdk"); // 126.56 grains
    const Bytes old = randomBytes(1, 16200 * 512);
    writeAt(*open(forWriting, "parent.vmdk"), 0, old);
    Bytes model = old;
    model.resize(8 * MiB);
    const P<CVMDKDisk> child = createChild("child.vmdk", "parent.vmdk");
    EXPECT_EQ(readAll(*child), model);
    writeAt(*child, 126 * grainBytes + 60000, Bytes(10, 'x'));
    std::fill_n(model.begin() + 126 * grainSize + 60000, 10, 'x');
    EXPECT_EQ(readAll(*child), model);
}

TEST_F(CVMDKDiskParentsTest, GrandparentShowsThrough) {
    Bytes model = randomBytes(1, 8 * MiB);
    writeAt(*create({}, "a.vmdk"), 0, model);
    const auto change = [&](const char* name, const char* parent, const DiskOptions& options, unsigned seed) {
        const P<CVMDKDisk> disk = createChild(name, parent, options);
        for (int64 position = seed * 100000; position < 7 * MiB; position += 1234567) {
            const Bytes data = randomBytes(seed + static_cast<unsigned>(position), 70000);
            writeAt(*disk, position, data);
            std::copy(data.begin(), data.end(), model.begin() + position);
        }
        EXPECT_EQ(readAll(*disk), model) << name;
    };
    change("b.vmdk", "a.vmdk", {.compressed = true}, 2);
    change("c.vmdk", "b.vmdk", {.limit = 3 * MiB, .onDemand = true}, 3);
    change("d.vmdk", "c.vmdk", {.compressed = true, .limit = 11 * MiB}, 4);
    EXPECT_EQ(readAll(*openForReading("d.vmdk")), model);
}

TEST_F(CVMDKDiskParentsTest, ParentOfAnotherGrainSizeOrCompressionServesBytesButNoGrains) {
    for (const bool compressed : {false, true})
        for (const int64 grainSectors : {16, 128, 256}) {
            putExtent("parent-s00000.vmdk", 16384 / grainSectors, grainSectors, compressed);
            putSplitDescriptor({"RW 16384 SPARSE \"parent-s00000.vmdk\""}, "parent.vmdk");
            Bytes model = randomBytes(1, 8 * MiB);
            writeAt(*open(forWriting, "parent.vmdk"), 0, model);
            P<CVMDKDisk> child = createChild("child.vmdk", "parent.vmdk");
            EXPECT_EQ(readAll(*child), model);
            writeAt(*child, 1000000, Bytes(10, 'x'));
            std::fill_n(model.begin() + 1000000, 10, 'x');
            EXPECT_EQ(readAll(*child), model);
            const bool isSame = !compressed && grainSectors == 128;
            TBuffer<unsigned char> prepared;
            child->seek(0);
            if (isSame) {
                child->readPreparedGrainData(prepared);
                EXPECT_EQ(child->makeGrainIndependentOfParent(1), grainBytes);
            } else {
                const auto expectRefused = [&](const std::function<void()>& action) {
                    EXPECT_TRUE(throwsError(action, typeid(CError), -1,
                                            "Parent disk is incompatible with diff disk.",
                                            {{"parentURI", path("parent.vmdk")},
                                             {"childURI", path("child.vmdk")},
                                             {"expectedGrainSize", "65536"},
                                             {"expectedCompressed", "false"},
                                             {"actualGrainSize", toDecimal(grainSectors * 512)},
                                             {"actualCompressed", toText(compressed)}}));
                };
                expectRefused([&] { child->readPreparedGrainData(prepared); });
                expectRefused([&] { child->makeGrainIndependentOfParent(1); });
            }
            EXPECT_EQ(readAll(*child), model);
            child = nullptr;
            m_memory->deleteFile(uri("parent-s00000.vmdk"), false);
        }
}

TEST_F(CVMDKDiskParentsTest, EncryptedChainOpensWithOnePassword) {
    Bytes model = randomBytes(1, 8 * MiB);
    writeAt(*create({.password = "secret"}, "a.vmdk"), 0, model);
    writeAt(*createChild("b.vmdk", "a.vmdk", {.password = "secret", .compressed = true}), 0, Bytes(10, 'b'));
    writeAt(*createChild("c.vmdk", "b.vmdk", {.password = "secret"}), 100, Bytes(10, 'c'));
    std::fill_n(model.begin(), 10, 'b');
    std::fill_n(model.begin() + 100, 10, 'c');
    EXPECT_EQ(readAll(*open(forReading, "c.vmdk", "secret")), model);
}

TEST_F(CVMDKDiskParentsTest, EncryptedParentWithAnotherPasswordIsRefused) {
    create({.password = "first"}, "a.vmdk");
    const unsigned int parentID = contentIDOf("a.vmdk", "first");
    const P<CVMDKDisk> child =
        create({.password = "second", .parentPath = "a.vmdk", .parentID = parentID}, "b.vmdk");
    unsigned char byte = 0;
    EXPECT_LUM_ERROR(child->read(&byte, 1), CError, -1, "Specified VMDK encryption password is not correct.",
                     {{"uri", path("a.vmdk")}});
    EXPECT_EQ(takeLog().size(), 1U);
}

TEST_F(CVMDKDiskParentsTest, AllDisksOfAChainShareOneCache) {
    writeAt(*create({}, "a.vmdk"), 0, randomBytes(1, 100));
    createChild("b.vmdk", "a.vmdk");
    createChild("c.vmdk", "b.vmdk");
    for (const int limit : {0, 1, 2, 1024}) {
        const P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(limit));
        P<CVMDKDisk> disk(new CVMDKDisk(files(), uri("c.vmdk"), forReading, "", -1, cache.get(), nullptr));
        EXPECT_EQ(readAt(*disk, 0, 100), randomBytes(1, 100));
        EXPECT_EQ(cache->getCachedTableCount(), std::min(limit, 3)); // a table of each
        disk = nullptr;
        EXPECT_EQ(cache->getCachedTableCount(), 0);
    }
}

// --- Grains independent of the parent ---

TEST_F(CVMDKDiskParentsTest, GrainsMadeIndependentNeedTheParentNoMore) {
    for (const bool compressed : {false, true}) {
        const Bytes old = randomBytes(1, 3 * grainBytes);
        writeAt(*create({.compressed = compressed}, "parent.vmdk"), 0, old);
        P<CVMDKDisk> child = createChild("child.vmdk", "parent.vmdk", {.compressed = compressed});
        const unsigned int contentID = child->getDescriptor()->getContentID();
        const Bytes fresh = randomBytes(2, 1000);
        writeAt(*child, grainBytes + 500, fresh); // still to be written when the grain is asked for
        Bytes model = old;
        std::copy(fresh.begin(), fresh.end(), model.begin() + grainSize + 500);
        model.resize(8 * MiB);
        const unsigned int changedID = child->getDescriptor()->getContentID();
        EXPECT_NE(changedID, contentID);
        for (int64 grain = 0; grain < 128; ++grain) {
            const int64 stored = child->makeGrainIndependentOfParent(grain);
            EXPECT_GT(stored, 0);
            if (!compressed || grain == 1) { // the second was there already
                EXPECT_EQ(stored, grainBytes) << grain;
            }
            EXPECT_EQ(child->getPosition(), (grain + 1) * grainBytes);
        }
        EXPECT_EQ(child->getDescriptor()->getContentID(), changedID);
        child->removeParent();
        child = nullptr;
        for (const CURI& file : m_memory->listFiles())
            if (file.getName().StartsWith("parent"))
                m_memory->deleteFile(file, false);
        EXPECT_EQ(readAll(*openForReading("child.vmdk")), model);
    }
}

TEST_F(CVMDKDiskParentsTest, MakingIndependentLeavesTheContentID) {
    writeAt(*create({}, "parent.vmdk"), 0, randomBytes(1, 10));
    const P<CVMDKDisk> child = createChild("child.vmdk", "parent.vmdk");
    const unsigned int contentID = child->getDescriptor()->getContentID();
    EXPECT_EQ(child->makeGrainIndependentOfParent(0), grainBytes);
    child->flushChanges();
    EXPECT_EQ(child->getDescriptor()->getContentID(), contentID);
    child->seek(0);
    EXPECT_TRUE(child->isGrainWrittenAndIndependentOfParent());
}

TEST_F(CVMDKDiskParentsTest, KnowsWhetherAGrainIsItsOwn) {
    writeAt(*create({}, "parent.vmdk"), 2 * grainBytes, randomBytes(1, 10));
    const P<CVMDKDisk> child = createChild("child.vmdk", "parent.vmdk");
    writeAt(*child, 3 * grainBytes, randomBytes(1, 10));
    const struct {
        int64 grain;
        bool written;
        bool own;
    } rows[] = {{0, false, false}, {2, true, false}, {3, true, true}, {127, false, false}};
    for (const auto& row : rows) {
        child->seek(row.grain * grainBytes + 5);
        EXPECT_EQ(child->isGrainWritten(), row.written) << row.grain;
        EXPECT_EQ(child->isGrainWrittenAndIndependentOfParent(), row.own) << row.grain;
        EXPECT_EQ(child->getPosition(), row.grain * grainBytes + 5);
    }
}

// --- Chains that lead nowhere ---

TEST_F(CVMDKDiskParentsTest, ChainThatComesBackToItselfIsRefused) {
    for (const int length : {1, 2, 3}) {
        for (int i = 0; i < length; ++i)
            putDiskWithParent(numbered(i), numbered((i + 1) % length));
        const P<CVMDKDisk> disk = openForReading(numbered(0));
        unsigned char byte = 0;
        EXPECT_LUM_ERROR(disk->read(&byte, 1), CIOError, 5, "VMDK parent disk chain comes back to itself.",
                         {{"parentURI", path(numbered(0))}, {"childURI", path(numbered(length - 1))}});
        EXPECT_EQ(takeLog().size(), 1U);
    }
}

TEST_F(CVMDKDiskParentsTest, ChainThatComesBackToALaterDiskIsRefused) {
    putDiskWithParent("a.vmdk", "b.vmdk");
    putDiskWithParent("b.vmdk", "./sub/../c.vmdk");
    putDiskWithParent("c.vmdk", "../folder/b%2evmdk");
    putDiskWithParent("b%2evmdk", "", noParent);
    EXPECT_EQ(readAt(*openForReading("a.vmdk"), 0, 1), zeroBytes(1)); // "b%2evmdk" is another file
    putDiskWithParent("c.vmdk", "memory:/folder/b%2evmdk");           // which this URI does not mean
    unsigned char byte = 0;
    EXPECT_LUM_ERROR(openForReading("a.vmdk")->read(&byte, 1), CIOError, 5,
                     "VMDK parent disk chain comes back to itself.",
                     {{"parentURI", path("b.vmdk")}, {"childURI", path("c.vmdk")}});
    EXPECT_EQ(takeLog().size(), 1U);
}

TEST_F(CVMDKDiskParentsTest, ChainOf256DisksIsRead) {
    const Bytes data = randomBytes(1, 100);
    putChain(256, data);
    const P<CVMDKDisk> disk = openForReading(numbered(0));
    EXPECT_EQ(readAt(*disk, 0, 100), data);
    disk->seek(0);
    EXPECT_TRUE(disk->isGrainWritten());
    TBuffer<unsigned char> prepared;
    disk->readPreparedGrainData(prepared);
    EXPECT_EQ(Bytes(prepared.getData(), prepared.getData() + 100), data);
}

TEST_F(CVMDKDiskParentsTest, ChainOf257DisksIsRefused) {
    putChain(257, randomBytes(1, 100));
    P<CVMDKDisk> disk = openForReading(numbered(0));
    unsigned char byte = 0;
    EXPECT_LUM_ERROR(disk->read(&byte, 1), CIOError, 5,
                     "VMDK parent disk chain is too deep (more than 256 disks).",
                     {{"parentURI", path(numbered(256))}, {"childURI", path(numbered(255))}});
    EXPECT_EQ(takeLog().size(), 1U);
    disk = nullptr;
    EXPECT_EQ(listFiles().size(), 257U); // no lock file is left
}
