// Links that lead nowhere: whoever opens a disk for writing makes no file at their end.

#include "CTemporaryFolder.h"
#include "DiskTest.h"
#include "lum/CNativeFileSystem.h"

#include <filesystem>

using namespace tessel;
using namespace tessel::test;

namespace {

class CVMDKDiskLinksTest : public DiskTest {
protected:
    /// Three extents, the first from 0, the second from 3 MiB on.
    void createSplit(bool onDemand = false) {
        CVMDKDisk::create(m_native.get(), main(), 8 * MiB, "", false, -1, 3 * MiB + 2 * 65536, "", noParent,
                          onDemand);
    }
    P<CVMDKDisk> openNative() {
        return new CVMDKDisk(m_native.get(), main(), forWriting, "", -1, nullptr, nullptr);
    }
    /// Lets a name of the folder lead to a file that is not there.
    void makeLink(const char* name) {
        std::filesystem::remove(m_folder.getPath(name));
        std::filesystem::create_symlink("target", m_folder.getPath(name));
    }
    CURI main() const { return m_folder.getURI("disk.vmdk"); }

    void expectNotFound(const std::function<void()>& action, const char* name) {
        EXPECT_TRUE(throwsFileSystemError(action, CFileSystemError::Problem_NotFound,
                                          "Cannot open file: No such file or directory",
                                          {{"uri", m_folder.getURI(name).toString(true)}}));
        EXPECT_FALSE(std::filesystem::exists(m_folder.getPath("target")));
        EXPECT_TRUE(std::filesystem::is_symlink(m_folder.getPath(name)));
    }

    CTemporaryFolder m_folder;
    P<IFileSystem> m_native{new CNativeFileSystem(false)};
};

} // namespace

TEST_F(CVMDKDiskLinksTest, MainFileBehindALinkIsNotMade) {
    makeLink("disk.vmdk");
    expectNotFound([&] { openNative(); }, "disk.vmdk");
}

TEST_F(CVMDKDiskLinksTest, ExtentBehindALinkIsNotMade) {
    for (const bool onDemand : {false, true}) {
        createSplit(onDemand);
        makeLink("disk-s00001.vmdk");
        const P<CVMDKDisk> disk = openNative();
        disk->seek(4 * MiB);
        expectNotFound([&] { disk->write("x", 1); }, "disk-s00001.vmdk");
        EXPECT_EQ(takeLog().size(), 1U) << "the extent that cannot be opened";
        writeAt(*disk, 0, Bytes(10, 'x'));
        EXPECT_EQ(readAt(*disk, 7 * MiB, 10), zeroBytes(10));
    }
}

TEST_F(CVMDKDiskLinksTest, ExtentThatBecameALinkIsNotMadeOnDemand) {
    createSplit(true);
    const P<CVMDKDisk> disk = openNative();
    EXPECT_EQ(readAt(*disk, 4 * MiB, 10), zeroBytes(10));
    makeLink("disk-s00001.vmdk");
    disk->seek(4 * MiB);
    expectNotFound([&] { disk->write("x", 1); }, "disk-s00001.vmdk");
    std::filesystem::remove(m_folder.getPath("disk-s00001.vmdk"));
    disk->write("x", 1);
    EXPECT_TRUE(std::filesystem::is_regular_file(m_folder.getPath("disk-s00001.vmdk")));
}

TEST_F(CVMDKDiskLinksTest, MainFileThatBecameALinkIsNotMadeForANewContentID) {
    createSplit();
    const P<CVMDKDisk> disk = openNative();
    makeLink("disk.vmdk");
    disk->seek(0);
    expectNotFound([&] { disk->write("x", 1); }, "disk.vmdk");
    EXPECT_FALSE(disk->isGrainWritten());
}

TEST_F(CVMDKDiskLinksTest, LinkToAFileIsThatFile) {
    createSplit();
    std::filesystem::rename(m_folder.getPath("disk-s00001.vmdk"), m_folder.getPath("target"));
    std::filesystem::create_symlink("target", m_folder.getPath("disk-s00001.vmdk"));
    writeAt(*openNative(), 4 * MiB, Bytes(10, 'x'));
    EXPECT_EQ(readAt(*openNative(), 4 * MiB, 10), Bytes(10, 'x'));
    EXPECT_TRUE(std::filesystem::is_symlink(m_folder.getPath("disk-s00001.vmdk")));
}

// --- Extents of other disks ---

TEST_F(CVMDKDiskLinksTest, ExtentOfAnotherDiskIsLeftAsItIs) {
    for (const bool onDemand : {false, true}) {
        create({.size = 30 * MiB, .compressed = true, .limit = 11 * MiB, .onDemand = onDemand});
        // One that is too small, and whose trail is not at its end.
        putExtent("disk-s00001.vmdk", 8, 128, true);
        putFile("disk-s00001.vmdk", getFile("disk-s00001.vmdk") + std::string(512, 'x'));
        const std::string stranger = getFile("disk-s00001.vmdk");
        {
            const P<CVMDKDisk> disk = open();
            disk->seek(4 * MiB);
            const auto error = catchError([&] { disk->write("x", 1); });
            ASSERT_TRUE(error);
            EXPECT_TRUE(error->getMessage().StartsWith("VMDK extent file does not belong to this disk"));
            takeLog(); // the end that is no trail, and the extent that cannot be opened
        }
        EXPECT_EQ(getFile("disk-s00001.vmdk"), stranger);
    }
}
