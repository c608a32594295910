#include "tessel/VMDKFileReference.h"

#include "CRecordingFileSystem.h"
#include "ErrorMatchers.h"
#include "lum/CBadPathError.h"
#include "lum/CMemoryFileSystem.h"
#include "tessel/CVMDKLowLevelFileStream.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const CURI folder(String("file:///vm/disks"));
const CURI uri(String("memory:/folder/disk.vmdk"));

class VMDKFileStreamTest : public ::testing::Test {
protected:
    using Opening = CRecordingFileSystem::Opening;

    void makeFile() { m_memory->openFile(uri, IIOStream::Access_ReadWrite)->write("hello", 5); }

    P<CMemoryFileSystem> m_memory{new CMemoryFileSystem};
    P<CRecordingFileSystem> m_files{new CRecordingFileSystem(m_memory.get())};
};

} // namespace

TEST(VMDKFileReference, NamesAFile) {
    const struct {
        String reference;
        const char* expected;
    } rows[] = {
        // Relative to the folder of the descriptor.
        {"disk-s00001.vmdk", "file:///vm/disks/disk-s00001.vmdk"},
        {"sub/disk.vmdk", "file:///vm/disks/sub/disk.vmdk"},
        {"./disk.vmdk", "file:///vm/disks/disk.vmdk"},
        {"../other/disk.vmdk", "file:///vm/other/disk.vmdk"},
        {"a/../disk.vmdk", "file:///vm/disks/disk.vmdk"},
        {"dir\\disk.vmdk", "file:///vm/disks/dir/disk.vmdk"},
        {"..\\disk.vmdk", "file:///vm/disk.vmdk"},
        {"mixed\\dir/disk.vmdk", "file:///vm/disks/mixed/dir/disk.vmdk"},
        // Names are names, whatever they mean in a URI.
        {"a disk.vmdk", "file:///vm/disks/a%20disk.vmdk"},
        {"100%25#1?.vmdk", "file:///vm/disks/100%2525%231%3F.vmdk"},
        {L"\x00E4\x4E2D.vmdk", "file:///vm/disks/%C3%A4%E4%B8%AD.vmdk"},
        {"./x:y", "file:///vm/disks/x:y"},
        {"sub/x:y", "file:///vm/disks/sub/x:y"},
        // Absolute paths of either system.
        {"/vm/other.vmdk", "file:///vm/other.vmdk"},
        {"/x:y", "file:///x:y"},
        {":x", "file:///vm/disks/:x"},
        {"C:\\dir\\disk.vmdk", "file:///C:/dir/disk.vmdk"},
        {"c:\\disk.vmdk", "file:///c:/disk.vmdk"},
        {"D:/disk.vmdk", "file:///D:/disk.vmdk"},
        {"D:/a b#1/../disk.vmdk", "file:///D:/disk.vmdk"},
        {"C:\\", "file:///C:/"},
        {"C:/", "file:///C:/"},
        {"\\\\server\\share\\disk.vmdk", "file://server/share/disk.vmdk"},
        // URIs.
        {"file:///vm/disk.vmdk", "file:///vm/disk.vmdk"},
        {"file:///vm/a/../a%20disk.vmdk", "file:///vm/a%20disk.vmdk"},
        {"HTTP://Host/disk.vmdk", "http://host/disk.vmdk"},
        {"x:y", "x:y"},
        {"xy:/z\\w", "xy:/z%5Cw"},
        // Two characters are no drive path.
        {"C:", "c:"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(vmdkFileReferenceToURI(folder, row.reference).toString(false), row.expected)
            << row.reference.toUTF8Lossy();
}

TEST(VMDKFileReference, DrivePathNeedsALetterAndASeparator) {
    // Each of these is a URI instead, or a path.
    EXPECT_EQ(vmdkFileReferenceToURI(folder, "1:/disk.vmdk").getName(), "disk.vmdk");
    EXPECT_EQ(vmdkFileReferenceToURI(folder, "C:disk.vmdk").getScheme(), "c");
    EXPECT_EQ(vmdkFileReferenceToURI(folder, "CD:/disk.vmdk").getScheme(), "cd");
}

TEST(VMDKFileReference, RelativeReferenceKeepsTheKindOfItsBase) {
    const CURI base(String("memory:/a/b"));
    EXPECT_EQ(vmdkFileReferenceToURI(base, "disk.vmdk"), CURI(String("memory:/a/b/disk.vmdk")));
    EXPECT_EQ(vmdkFileReferenceToURI(base, "..\\disk.vmdk"), CURI(String("memory:/a/disk.vmdk")));
    EXPECT_EQ(vmdkFileReferenceToURI(base, "/disk.vmdk"), CURI(String("file:///disk.vmdk")));
}

TEST(VMDKFileReference, BadWindowsPathIsRefused) {
    EXPECT_LUM_ERROR(vmdkFileReferenceToURI(folder, "C:\\a<b.vmdk"), CBadPathError, -1,
                     "Invalid path: C:\\a<b.vmdk",
                     {{"path", "C:\\a<b.vmdk"}, {"reason", "The character < is in no path"}});
    EXPECT_LUM_ERROR(
        vmdkFileReferenceToURI(folder, "a\\b:c"), CBadPathError, -1, "Invalid path: a\\b:c",
        {{"path", "a\\b:c"}, {"reason", "The character : only stands behind the letter of a drive"}});
    EXPECT_LUM_ERROR(vmdkFileReferenceToURI(folder, "a\\b|c.vmdk"), CBadPathError, -1,
                     "Invalid path: a\\b|c.vmdk",
                     {{"path", "a\\b|c.vmdk"}, {"reason", "The character | is in no path"}});
}

// --- Opening ---

TEST_F(VMDKFileStreamTest, OpensABufferedStreamWithTheGivenAccess) {
    const P<IIOStream> stream = openVMDKFileStream(m_files.get(), uri, IIOStream::Access_ReadWrite);
    EXPECT_TRUE(dynamic_cast<CVMDKLowLevelFileStream*>(stream.get()));
    EXPECT_EQ(stream->getURI(), uri);
    EXPECT_THAT(m_files->takeOpenings(), ElementsAre(Opening{uri, IIOStream::Access_ReadWrite}));
    EXPECT_TRUE(m_memory->fileExists(uri));
}

TEST_F(VMDKFileStreamTest, OpeningAFileThatMustExistNeverCreatesIt) {
    for (const auto access : {IIOStream::Access_Read, IIOStream::Access_ReadWrite}) {
        EXPECT_FILE_SYSTEM_ERROR(
            openExistingVMDKFileStream(m_files.get(), uri, access), CFileSystemError::Problem_NotFound,
            "Cannot open file: No such file or directory", {{"uri", uri.toString(true)}});
        EXPECT_FALSE(m_memory->fileExists(uri));
    }
    EXPECT_THAT(m_memory->listFiles(), IsEmpty());
}

TEST_F(VMDKFileStreamTest, OpensAFileThatExistsOnceWithTheGivenAccess) {
    makeFile();
    for (const auto access : {IIOStream::Access_Read, IIOStream::Access_ReadWrite}) {
        const P<IIOStream> stream = openExistingVMDKFileStream(m_files.get(), uri, access);
        EXPECT_THAT(m_files->takeOpenings(), ElementsAre(Opening{uri, access}));
        char text[5];
        stream->read(text, 5);
        EXPECT_EQ(std::string(text, 5), "hello");
    }
}

} // namespace tessel::test
