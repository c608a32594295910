#include "lum/CNativeFileSystem.h"

#include "CTemporaryFolder.h"
#include "ErrorMatchers.h"
#include "lum/CConfinedFileSystem.h"
#include "lum/CMemoryFileSystem.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <string>

using namespace lum;
using namespace tessel::test;

namespace {

using Problem = CFileSystemError::Problem;

/// What only the computer's own files do. What they share with others is in the contract's tests.
class CNativeFileSystemTest : public ::testing::Test {
protected:
    CURI uri(const char* name = "file") const { return m_folder.getURI(name); }
    String name(const char* file = "file") const { return uri(file).toString(true); }
    P<IIOStream> open(const CURI& file) { return m_fileSystem->openFile(file, IIOStream::Access_ReadWrite); }
    void put(const CURI& file, const std::string& text) {
        open(file)->write(text.data(), static_cast<int>(text.size()));
    }
    int64 lengthOf(const CURI& file) {
        return m_fileSystem->openFile(file, IIOStream::Access_Read)->getLength();
    }

    CTemporaryFolder m_folder;
    P<CNativeFileSystem> m_fileSystem{new CNativeFileSystem};
};

} // namespace

TEST_F(CNativeFileSystemTest, RelativeReferencesStartAtTheCurrentFolder) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(m_folder.getPath());
    const P<IIOStream> stream = open(CURI(String("a%20b")));
    stream->flush();
    std::filesystem::current_path(before);
    EXPECT_TRUE(std::filesystem::exists(m_folder.getPath("a b")));
    EXPECT_EQ(stream->getURI(), CURI(String("a%20b")));
}

TEST_F(CNativeFileSystemTest, OtherSchemesAreNotSupported) {
    const CURI other(String("http://example.org/a"));
    EXPECT_FILE_SYSTEM_ERROR(
        m_fileSystem->openFile(other, IIOStream::Access_Read), Problem::Problem_NotSupported,
        "Only files can be opened, no URIs with another scheme", {{"uri", "http://example.org/a"}});
}

TEST_F(CNativeFileSystemTest, FoldersAreNoFiles) {
    std::filesystem::create_directory(m_folder.getPath("folder"));
    for (const auto access : {IIOStream::Access_Read, IIOStream::Access_ReadWrite})
        for (const char* const text : {"folder", "folder/"}) {
            const CURI folder(uri("").toString(false) + text);
            EXPECT_FILE_SYSTEM_ERROR(m_fileSystem->openFile(folder, access), Problem::Problem_NotAFile,
                                     "Cannot open file: Is a directory", {{"uri", folder.toString(true)}});
        }
    EXPECT_TRUE(m_fileSystem->fileExists(uri("folder")));
    EXPECT_FILE_SYSTEM_ERROR(m_fileSystem->deleteFile(uri("folder"), true), Problem::Problem_NotAFile,
                             "Cannot delete file: Is a directory", {{"uri", name("folder")}});
    EXPECT_TRUE(m_fileSystem->fileExists(uri("folder")));
}

TEST_F(CNativeFileSystemTest, FilesAreNoFolders) {
    put(uri("a"), "x");
    for (const char* const text : {"a/", "a/b"}) {
        const CURI inside(uri("").toString(false) + text);
        EXPECT_FALSE(m_fileSystem->fileExists(inside)) << text;
        EXPECT_FILE_SYSTEM_ERROR(open(inside), Problem::Problem_NotFound,
                                 "Cannot open file: No such file or directory",
                                 {{"uri", inside.toString(true)}});
        EXPECT_NO_THROW(m_fileSystem->deleteFile(inside, true));
    }
    EXPECT_EQ(lengthOf(uri("a")), 1);
}

TEST_F(CNativeFileSystemTest, FoldersAreNotMade) {
    EXPECT_FILE_SYSTEM_ERROR(open(uri("none") << String("a")), Problem::Problem_NotFound,
                             "Cannot open file: No such file or directory",
                             {{"uri", (uri("none") << String("a")).toString(true)}});
}

/// A folder whose path is longer than what Windows calls MAX_PATH.
class CNativeFileSystemLongPathsTest : public CNativeFileSystemTest {
protected:
    CNativeFileSystemLongPathsTest() {
        for (int i = 0; i < 4; ++i) {
            m_place = m_place << String(std::wstring(100, L'a'));
            EXPECT_TRUE(::CreateDirectoryW(systemPath(m_place).c_str(), nullptr));
        }
    }
    ~CNativeFileSystemLongPathsTest() override {
        for (; m_place.getName().getLength() == 100; m_place = m_place.getParent())
            EXPECT_TRUE(::RemoveDirectoryW(systemPath(m_place).c_str()));
    }
    static std::wstring systemPath(const CURI& place) {
        return LR"(\\?\)" + uriToNativePath(place).getWideString();
    }

    CURI m_place = m_folder.getURI();
};

TEST_F(CNativeFileSystemLongPathsTest, FilesAreFilesLikeOthers) {
    const CURI file = m_place << String("disk.vmdk");
    ASSERT_GT(uriToNativePath(file).getLength(), 400);
    put(file, "hello");
    EXPECT_EQ(lengthOf(file), 5);
    EXPECT_TRUE(m_fileSystem->isFileOfStream(file, *open(file)));
    m_fileSystem->deleteFile(file, false);
    EXPECT_FALSE(m_fileSystem->fileExists(file));
}

TEST_F(CNativeFileSystemLongPathsTest, LinksAreFollowed) {
    EXPECT_EQ(m_fileSystem->followLinks(m_place << String("missing")), m_fileSystem->followLinks(m_place)
                                                                           << String("missing"));
}

TEST_F(CNativeFileSystemTest, NoNameIsAnotherOneInDisguise) {
    put(uri("disk.vmdk"), "one");
    for (const char* const other : {"disk.vmdk.", "disk.vmdk "}) {
        EXPECT_FALSE(m_fileSystem->fileExists(uri(other))) << other;
        EXPECT_THROW(m_fileSystem->openFile(uri(other), IIOStream::Access_Read), CFileSystemError) << other;
    }
    put(uri("nul"), "four");
    EXPECT_EQ(lengthOf(uri("nul")), 4) << "a file, not the device that swallows everything";
    m_fileSystem->deleteFile(uri("nul"), false);
    EXPECT_FALSE(m_fileSystem->fileExists(uri("nul")));
}

TEST_F(CNativeFileSystemTest, LettersOfBothCasesNameTheSameFile) {
    put(uri("Disk.vmdk"), "hello");
    EXPECT_EQ(lengthOf(uri("DISK.VMDK")), 5);
    EXPECT_TRUE(m_fileSystem->isFileOfStream(uri("dISK.vmdk"), *open(uri("Disk.vmdk"))));
    EXPECT_EQ(m_fileSystem->followLinks(uri("DISK.VMDK")), m_fileSystem->followLinks(uri("Disk.vmdk")));
}

TEST_F(CNativeFileSystemTest, FollowsLinksOfWhatDoesNotExistYet) {
    const CURI folder = m_fileSystem->followLinks(m_folder.getURI());
    EXPECT_EQ(m_fileSystem->followLinks(uri("missing")), folder << String("missing"));
    EXPECT_EQ(m_fileSystem->followLinks(uri("missing") << String("file")),
              folder << String("missing") << String("file"));
    EXPECT_EQ(m_fileSystem->followLinks(CURI(String("file:///C:/"))), CURI(String("file:///C:/")));
}

TEST_F(CNativeFileSystemTest, IsConfinedToFoldersWhateverTheirSpelling) {
    std::filesystem::create_directory(m_folder.getPath("In"));
    std::filesystem::create_directory(m_folder.getPath("out"));
    put(uri("out") << String("secret"), "x");
    const P<CConfinedFileSystem> confined(new CConfinedFileSystem(m_fileSystem.get(), uri("IN")));
    confined->openFile(uri("IN") << String("a"), IIOStream::Access_ReadWrite)->write("x", 1);
    EXPECT_TRUE(confined->isAllowed(uri("IN") << String("A")));
    EXPECT_FALSE(confined->isAllowed(uri("out") << String("secret")));
    EXPECT_FALSE(confined->isAllowed(uri("IN") << CURI(String("../out/secret"))));
    EXPECT_FALSE(confined->isAllowed(uri("IN.")));
    EXPECT_FALSE(confined->isAllowed(uri("IN. ") << String("a")));
}

TEST_F(CNativeFileSystemTest, OthersMayKeepAFileToThemselves) {
    put(uri(), "hello");
    const std::wstring path = uriToNativePath(uri()).getWideString();
    const HANDLE alone = ::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(alone, INVALID_HANDLE_VALUE);
    EXPECT_FILE_SYSTEM_ERROR(open(uri()), Problem::Problem_Locked,
                             "Cannot open file: Another program uses it", {{"uri", name()}});
    EXPECT_FILE_SYSTEM_ERROR(m_fileSystem->deleteFile(uri(), true), Problem::Problem_Locked,
                             "Cannot delete file: Another program uses it", {{"uri", name()}});
    EXPECT_TRUE(m_fileSystem->fileExists(uri()));
    ::CloseHandle(alone);
    EXPECT_EQ(lengthOf(uri()), 5);
}

TEST_F(CNativeFileSystemTest, ReadOnlyFilesAreReadAndNotWritten) {
    put(uri(), "hello");
    const std::wstring path = uriToNativePath(uri()).getWideString();
    ASSERT_TRUE(::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ(lengthOf(uri()), 5);
    EXPECT_FILE_SYSTEM_ERROR(open(uri()), Problem::Problem_AccessDenied,
                             "Cannot open file: Permission denied", {{"uri", name()}});
    ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    EXPECT_NO_THROW(open(uri()));
}

TEST_F(CNativeFileSystemTest, DeletedFileLeavesNothingBehind) {
    put(uri(), "hello");
    {
        const P<IIOStream> user = open(uri());
        m_fileSystem->deleteFile(uri(), false);
        EXPECT_FALSE(m_fileSystem->fileExists(uri()));
        put(uri(), "new");
        EXPECT_EQ(user->getLength(), 5);
        m_fileSystem->deleteFile(uri(), false);
    }
    EXPECT_TRUE(std::filesystem::is_empty(m_folder.getPath()));
}

TEST_F(CNativeFileSystemTest, NewFilesMayHaveHoles) {
    constexpr int64 distant = int64{1} << 40;
    const P<IIOStream> stream = open(uri());
    stream->seek(distant);
    stream->write("x", 1);
    EXPECT_EQ(stream->getLength(), distant + 1);
    char middle = 'y';
    stream->seek(distant / 2);
    stream->read(&middle, 1);
    EXPECT_EQ(middle, 0);
}

TEST_F(CNativeFileSystemTest, RefusesStreamsOfOthers) {
    const P<IFileSystem> memory(new CMemoryFileSystem);
    const P<IIOStream> stream = memory->openFile(CURI(String("memory:/a")), IIOStream::Access_ReadWrite);
    EXPECT_THROW(m_fileSystem->isFileOfStream(uri(), *stream), CInvalidArgError);
}
