// Changes of the descriptor of an open disk: stored whole, or not made.

#include "CEventFileSystem.h"
#include "CFaultFileSystem.h"
#include "DiskTest.h"

using namespace tessel;
using namespace tessel::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class CVMDKDiskDescriptorTest : public DiskTest {
protected:
    /// A child of a parent that is named but not there.
    P<CVMDKDisk> createChild(int64 limit = -1) {
        return create({.limit = limit, .parentPath = "old.vmdk", .parentID = 0x11111111});
    }
    static void expectParent(CVMDKDescriptor& descriptor, const String& hint, unsigned int contentID) {
        String actual;
        descriptor.tryGetParentFileNameHint(actual);
        EXPECT_EQ(actual, hint);
        EXPECT_EQ(descriptor.getParentContentID(), contentID);
    }
    /// In memory and, opened anew, in the file.
    void expectParent(P<CVMDKDisk>& disk, const String& hint, unsigned int contentID) {
        expectParent(*disk->getDescriptor(), hint, contentID);
        disk = nullptr;
        expectParent(*openForReading()->getDescriptor(), hint, contentID);
    }
};

struct Change {
    const char* name;
    std::function<void(CVMDKDisk&)> make;
};

const Change changes[] = {
    {"changeParentRelPath", [](CVMDKDisk& disk) { disk.changeParentRelPath("new.vmdk"); }},
    {"changeParent", [](CVMDKDisk& disk) { disk.changeParent("new.vmdk", 0x22222222); }},
    {"removeParent", [](CVMDKDisk& disk) { disk.removeParent(); }},
};

} // namespace

TEST_F(CVMDKDiskDescriptorTest, ChangesNeedWriteAccess) {
    createChild();
    const P<CVMDKDisk> disk = openForReading();
    const String before = disk->getDescriptor()->toString();
    const auto message = [](const char* method) {
        return String("Internal error: CVMDKDisk::") + method +
               " was called, but the disk was not opened for writing.";
    };
    EXPECT_LUM_ERROR(disk->storeDescriptor(), CError, -1, message("storeDescriptor"));
    for (const Change& change : changes)
        EXPECT_LUM_ERROR(change.make(*disk), CError, -1, message(change.name));
    EXPECT_EQ(disk->getDescriptor()->toString(), before);
}

TEST_F(CVMDKDiskDescriptorTest, StoresWhatWasChanged) {
    for (const int64 limit : {int64{-1}, 3 * MiB})
        for (const bool compressed : {false, true}) {
            P<CVMDKDisk> disk = create({.compressed = compressed, .limit = limit < 0 ? limit : 11 * MiB});
            disk->getDescriptor()->setValue("ddb.uuid", "60 00 C2 9e", true, false);
            disk->storeDescriptor();
            const String text = disk->getDescriptor()->toString();
            disk = nullptr;
            EXPECT_EQ(descriptorText(), text);
            EXPECT_EQ(openForReading()->getDescriptor()->getValue("ddb.uuid"), "60 00 C2 9e");
        }
}

TEST_F(CVMDKDiskDescriptorTest, StoresThroughTheOpenExtentWhereThatIsTheMainFile) {
    const P<CEventFileSystem> recorder(new CEventFileSystem(m_memory.get()));
    m_files = recorder;
    const P<CVMDKDisk> disk = create();
    const Bytes data = randomBytes(1, 512);
    writeAt(*disk, 0, data);
    recorder->takeEvents();
    disk->storeDescriptor();
    EXPECT_THAT(recorder->takeOpeningEvents(), IsEmpty());
    EXPECT_EQ(readAt(*disk, 0, 512), data);
}

TEST_F(CVMDKDiskDescriptorTest, StoresThroughAStreamOfItsOwnElsewhere) {
    const P<CEventFileSystem> recorder(new CEventFileSystem(m_memory.get()));
    m_files = recorder;
    const P<CVMDKDisk> disk = create({.compressed = true, .limit = 11 * MiB});
    readAt(*disk, 5 * MiB, 1);
    recorder->takeEvents();
    disk->storeDescriptor();
    EXPECT_THAT(recorder->takeOpeningEvents(), ElementsAre("open+ disk.vmdk", "close disk.vmdk"));
    EXPECT_THAT(recorder->getOpenFiles(), ElementsAre("disk.vmdk.lock", "disk-s00001.vmdk"));
}

TEST_F(CVMDKDiskDescriptorTest, StoresAfterTheMainFileFailedToOpenAsAnExtent) {
    create();
    const P<CFaultFileSystem> faults(new CFaultFileSystem(m_memory.get()));
    m_files = faults;
    const P<CVMDKDisk> disk = open();
    faults->addRule({.operation = FaultRule::Open, .fileSuffix = "disk.vmdk"});
    unsigned char byte = 0;
    EXPECT_FILE_SYSTEM_ERROR(disk->read(&byte, 1), CFileSystemError::Problem_AccessDenied,
                             "Cannot open file: Injected fault", {{"uri", path("disk.vmdk")}});
    EXPECT_EQ(takeLog().size(), 1U);
    disk->getDescriptor()->setValue("ddb.x", "1", true, false);
    disk->storeDescriptor();
    EXPECT_TRUE(descriptorText().Contains("ddb.x = \"1\"") || descriptorText().Contains("ddb.x=\"1\""));
    disk->read(&byte, 1);
    EXPECT_EQ(byte, 0);
}

TEST_F(CVMDKDiskDescriptorTest, StoringDoesNotMakeAMainFileThatIsGone) {
    const P<CVMDKDisk> disk = create({.limit = 3 * MiB});
    m_memory->deleteFile(uri("disk.vmdk"), false);
    EXPECT_FILE_SYSTEM_ERROR(disk->storeDescriptor(), CFileSystemError::Problem_NotFound,
                             "Cannot open file: No such file or directory", {{"uri", path("disk.vmdk")}});
    EXPECT_FALSE(exists("disk.vmdk"));
}

TEST_F(CVMDKDiskDescriptorTest, ChangesThePathOfTheParent) {
    for (const int64 limit : {int64{-1}, 3 * MiB}) {
        P<CVMDKDisk> disk = createChild(limit);
        disk->changeParentRelPath("sub dir/new.vmdk");
        // The disk that is open goes on with the parent it has.
        EXPECT_EQ(disk->getParentDiskMainURI(), uri("old.vmdk"));
        expectParent(disk, "sub dir/new.vmdk", 0x11111111);
        EXPECT_EQ(openForReading()->getParentDiskMainURI(),
                  CURI(String("memory:/folder/sub%20dir/new.vmdk")));
    }
}

TEST_F(CVMDKDiskDescriptorTest, ChangesTheParent) {
    P<CVMDKDisk> disk = createChild();
    disk->changeParent("new.vmdk", 0x22222222);
    expectParent(disk, "new.vmdk", 0x22222222);
}

TEST_F(CVMDKDiskDescriptorTest, RemovesTheParent) {
    P<CVMDKDisk> disk = createChild();
    disk->removeParent();
    EXPECT_FALSE(disk->getDescriptor()->hasValue("parentFileNameHint"));
    EXPECT_TRUE(disk->getDescriptor()->hasValue("parentCID"));
    expectParent(disk, "", noParent);
    EXPECT_EQ(readAll(*openForReading()), zeroBytes(8 * MiB));
}

TEST_F(CVMDKDiskDescriptorTest, ChangesReachTheFileInOneStore) {
    const P<CEventFileSystem> recorder(new CEventFileSystem(m_memory.get()));
    m_files = recorder;
    for (const Change& change : changes) {
        const P<CVMDKDisk> disk = createChild(3 * MiB);
        recorder->takeEvents();
        change.make(*disk);
        EXPECT_THAT(recorder->takeEvents(),
                    ElementsAre("open+ disk.vmdk", "read disk.vmdk", "write disk.vmdk", "flush disk.vmdk",
                                "close disk.vmdk"))
            << change.name;
    }
}

TEST_F(CVMDKDiskDescriptorTest, ChangeThatCannotBeStoredIsUndoneInMemory) {
    const P<CFaultFileSystem> faults(new CFaultFileSystem(m_memory.get()));
    m_files = faults;
    const FaultRule rules[] = {
        {.operation = FaultRule::Open, .fileSuffix = "disk.vmdk"},
        {.operation = FaultRule::Read, .fileSuffix = "disk.vmdk", .always = true},
        {.operation = FaultRule::Write, .fileSuffix = "disk.vmdk", .always = true},
        {.operation = FaultRule::Write,
         .kind = FaultRule::FullDisk,
         .fileSuffix = "disk.vmdk",
         .always = true},
        {.operation = FaultRule::Flush, .fileSuffix = "disk.vmdk"},
    };
    for (const Change& change : changes)
        for (const FaultRule& rule : rules) {
            P<CVMDKDisk> disk = createChild(3 * MiB);
            const P<CVMDKDescriptor> descriptor = disk->getDescriptor();
            const String before = descriptor->toString();
            const int hits = faults->getHits();
            faults->addRule(rule);
            EXPECT_THROW(change.make(*disk), CError) << change.name << " " << rule.operation;
            EXPECT_GT(faults->getHits(), hits);
            faults->clearRules();
            EXPECT_EQ(descriptor->toString(), before) << change.name << " " << rule.operation;
            EXPECT_EQ(disk->getDescriptor(), descriptor);
            // Another try is as good as a first one.
            EXPECT_NO_THROW(change.make(*disk));
            EXPECT_NE(descriptor->toString(), before);
            disk = nullptr;
            EXPECT_EQ(descriptorText(), descriptor->toString());
            takeLog(); // the stream's destructor may tell of the write that failed
        }
}

TEST_F(CVMDKDiskDescriptorTest, ChangeThatHasNoRoomIsUndoneInMemoryAndLeavesTheFile) {
    for (const int64 limit : {int64{-1}, 3 * MiB}) {
        P<CVMDKDisk> disk = createChild(limit);
        const String before = disk->getDescriptor()->toString();
        const std::string longPath(40000, 'x');
        for (const auto& change : std::initializer_list<std::function<void()>>{
                 [&] { disk->changeParentRelPath(longPath.c_str()); },
                 [&] { disk->changeParent(longPath.c_str(), 0x22222222); }}) {
            const auto error = catchError(change);
            ASSERT_TRUE(error);
            EXPECT_TRUE(error->getMessage().StartsWith(
                "Internal error: actual VMDK descriptor size exceeds target size (actual size: "));
            EXPECT_EQ(disk->getDescriptor()->toString(), before);
        }
        disk = nullptr;
        EXPECT_EQ(descriptorText(), before);
    }
}

TEST_F(CVMDKDiskDescriptorTest, PathThatWouldBreakALineIsRefused) {
    const P<CVMDKDisk> disk = createChild();
    const String before = disk->getDescriptor()->toString();
    EXPECT_THROW(disk->changeParentRelPath("a\nRW 1 ZERO"), CInvalidArgError);
    EXPECT_THROW(disk->changeParent("a\rb", 1), CInvalidArgError);
    EXPECT_EQ(disk->getDescriptor()->toString(), before);
}
