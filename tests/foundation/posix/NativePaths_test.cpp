#include "ErrorMatchers.h"
#include "lum/CURI.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <string>

namespace lum {
namespace {

/// Leads into a folder of its own and back.
class NativePaths : public ::testing::Test {
protected:
    NativePaths() {
        std::filesystem::create_directories(m_folder);
        std::filesystem::current_path(m_folder);
    }
    ~NativePaths() override {
        std::filesystem::current_path(m_start);
        std::filesystem::remove_all(m_folder);
    }

    void enter(const std::string& subfolder) {
        std::filesystem::create_directories(m_folder / subfolder);
        std::filesystem::current_path(m_folder / subfolder);
    }

    std::filesystem::path m_start = std::filesystem::current_path();
    std::filesystem::path m_folder =
        std::filesystem::canonical(::testing::TempDir()) / ("native_paths_" + std::to_string(::getpid()));
};

TEST_F(NativePaths, TellsTheCurrentFolder) {
    EXPECT_EQ(getCurrentWorkDirectoryAsString(), String::fromUTF8(m_folder.string()));
}

TEST_F(NativePaths, TellsALongCurrentFolder) {
    for (int i = 0; i < 8; ++i)
        enter(std::filesystem::current_path().lexically_relative(m_folder) / std::string(100, 'x'));
    EXPECT_EQ(getCurrentWorkDirectoryAsString(), String::fromUTF8(std::filesystem::current_path().string()));
    EXPECT_GT(getCurrentWorkDirectoryAsString().getLength(), 800);
}

TEST_F(NativePaths, CannotTellAFolderThatIsGone) {
    std::filesystem::remove_all(m_folder);
    EXPECT_LUM_ERROR_WITH_SECOND_TEXT(getCurrentWorkDirectoryAsString(), CFileSystemError, -1,
                                      "The current folder cannot be told", "No such file or directory");
    const auto error = tessel::test::catchError([] { getCurrentWorkDirectoryAsString(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(dynamic_cast<const CFileSystemError&>(*error).getProblem(), CFileSystemError::Problem_NotFound);
}

TEST_F(NativePaths, CannotTellAFolderWhoseNameIsNoText) {
    enter("\xFF");
    EXPECT_FILE_SYSTEM_ERROR(getCurrentWorkDirectoryAsString(), CFileSystemError::Problem_Other,
                             "The name of the current folder is not UTF-8");
}

TEST_F(NativePaths, ResolvesPathsFromTheCurrentFolder) {
    enter("50% #1");
    const CURI uri = nativePathToURI("../a?.vmdk");
    EXPECT_TRUE(uri.isAbsolute());
    EXPECT_EQ(uriToNativePath(uri), String::fromUTF8((m_folder / "a?.vmdk").string()));
    EXPECT_EQ(uriToNativePath(nativePathToURI(L"\x00E4")),
              String::fromUTF8((m_folder / "50% #1" / "\xC3\xA4").string()));
}

TEST_F(NativePaths, KeepsAbsolutePaths) {
    EXPECT_EQ(nativePathToURI("/vm/disk.vmdk"), CURI("file:///vm/disk.vmdk"));
    EXPECT_EQ(uriToNativePath(CURI("file:///vm/a%20b%23.vmdk")), "/vm/a b#.vmdk");
    EXPECT_EQ(CURI(CWindowsPath("\\sub\\a.vmdk"), true), CURI("file:///sub/a.vmdk"))
        << "there are no drives here";
}

TEST_F(NativePaths, RefusesWhatIsNoPathHere) {
    EXPECT_THROW(nativePathToURI(String("a\0b", 3)), CBadPathError);
    EXPECT_THROW(uriToNativePath(CURI("file:///a%2Fb")), CBadPathError);
    EXPECT_FILE_SYSTEM_ERROR(
        uriToNativePath(CURI("file://server/share/x")), CFileSystemError::Problem_NotSupported,
        "Files on another computer cannot be opened by its name", {{"uri", "file://server/share/x"}});
}

TEST_F(NativePaths, EmptyPathIsTheEmptyReference) {
    EXPECT_TRUE(nativePathToURI("").isEmpty());
    EXPECT_EQ(uriToNativePath(CURI()), "");
}

} // namespace
} // namespace lum
