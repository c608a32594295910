// A disk in a single file that was renamed or copied by hand: its descriptor still names the old file, which
// may be there, and which nobody touches.

#include "CheckFixture.h"
#include "tessel/VMDKRenamedFile.h"

using namespace tessel;
using namespace tessel::test;
using ::testing::IsEmpty;

namespace {

class CVMDKDiskRenamedTest : public DiskTest {
protected:
    P<CVMDKDisk> openRenamed(const String& name, IIOStream::Access access = forWriting,
                             const char* password = "") {
        return CVMDKDisk::openRenamed(files(), uri(name), access, password, -1, nullptr, nullptr);
    }
    void move(const String& from, const String& to) {
        putFile(to, getFile(from));
        m_memory->deleteFile(uri(from), false);
    }
    const Bytes m_data = randomBytes(3, 1000);
    const Bytes m_other = randomBytes(4, 1000);
};

TEST_F(CVMDKDiskRenamedTest, MainFileIsTheExtentWhetherTheOtherIsThereOrNot) {
    for (const bool compressed : {false, true})
        for (const char* const password : {"", "secret"})
            for (const bool isCopy : {false, true}) {
                const DiskOptions options{.password = password, .compressed = compressed};
                writeAt(*create(options, "old.vmdk"), 12345, m_data);
                if (isCopy)
                    putFile("new.vmdk", getFile("old.vmdk"));
                else
                    move("old.vmdk", "new.vmdk");
                const std::string old = isCopy ? getFile("old.vmdk") : std::string();
                {
                    const P<CVMDKDisk> disk = openRenamed("new.vmdk", forWriting, password);
                    EXPECT_TRUE(disk->isRenamed());
                    EXPECT_EQ(disk->getFirstExtentFileURI(), uri("new.vmdk"));
                    EXPECT_EQ(readAt(*disk, 12345, 1000), m_data);
                    writeAt(*disk, 4 * MiB, m_other);
                    writeAt(*disk, 12345, m_other);
                    disk->flushChanges();
                    disk->changeParentRelPath("x.vmdk");
                }
                const P<CVMDKDisk> disk = openRenamed("new.vmdk", forReading, password);
                EXPECT_EQ(readAt(*disk, 12345, 1000), m_other);
                EXPECT_EQ(readAt(*disk, 4 * MiB, 1000), m_other);
                EXPECT_EQ(exists("old.vmdk"), isCopy);
                if (isCopy) {
                    EXPECT_EQ(getFile("old.vmdk"), old);
                }
                m_memory->deleteFile(uri("old.vmdk"), true);
            }
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(CVMDKDiskRenamedTest, SoAreParents) {
    {
        const P<CVMDKDisk> base = create({}, "old.vmdk");
        writeAt(*base, 777777, m_data);
        base->flushChanges();
        create({.parentPath = "base.vmdk", .parentID = base->getDescriptor()->getContentID()}, "child.vmdk");
    }
    move("old.vmdk", "base.vmdk");
    create({}, "old.vmdk");
    const P<CVMDKDisk> disk = openRenamed("child.vmdk");
    EXPECT_FALSE(disk->isRenamed());
    EXPECT_EQ(readAt(*disk, 777777, 1000), m_data);
    EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(CVMDKDiskRenamedTest, DisksOfSeveralFilesAreOpenedAsTheyAlwaysWere) {
    for (const bool compressed : {false, true}) {
        create({.compressed = compressed, .limit = 6 * MiB}, "old.vmdk");
        putFile("new.vmdk", getFile("old.vmdk"));
        const P<CVMDKDisk> disk = openRenamed("new.vmdk", forReading);
        EXPECT_FALSE(disk->isRenamed());
        EXPECT_EQ(disk->getFirstExtentFileURI(), uri(compressed ? "old.vmdk" : "old-s00000.vmdk"));
        EXPECT_EQ(takeLog().size(), compressed ? 1U : 0U);
    }
}

TEST_F(CVMDKDiskRenamedTest, OwnNameIsNoOtherName) {
    const P<CVMDKDisk> disk = create({}, "a b.vmdk");
    EXPECT_FALSE(isRenamedVMDKFile(*disk->getDescriptor(), uri("a b.vmdk")));
    EXPECT_FALSE(isRenamedVMDKFile(*disk->getDescriptor(), CURI("memory:/folder/x/../a%20b.vmdk")));
    EXPECT_TRUE(isRenamedVMDKFile(*disk->getDescriptor(), uri("b.vmdk")));
    EXPECT_FALSE(isRenamedVMDKFile(CVMDKDescriptor(), uri("b.vmdk")));
}

TEST_F(CVMDKDiskRenamedTest, CheckLooksAtTheMainFileWhereItIsToldTo) {
    writeAt(*create({.compressed = true}, "old.vmdk"), 0, m_data);
    move("old.vmdk", "new.vmdk");
    for (const bool takes : {false, true}) {
        const P<CVMDKDiskChecker> checker(new CVMDKDiskChecker(files(), uri("new.vmdk")));
        checker->setTakesRenamed(takes);
        const P<CFindings> findings(new CFindings);
        checker->check("", false, *findings);
        EXPECT_EQ(checker->getGrainCount(), takes ? 1 : 0);
        if (takes) {
            EXPECT_TRUE(findings->all.empty());
        } else {
            ASSERT_EQ(findings->all.size(), 2U);
            EXPECT_EQ(findings->all[0].kind, UVMDKCheckFinding::Kind_MainFileUnused);
            EXPECT_EQ(findings->all[1].kind, UVMDKCheckFinding::Kind_ExtentMissing);
        }
    }
}

} // namespace
