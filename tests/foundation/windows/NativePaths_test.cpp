#include "CTemporaryFolder.h"
#include "ErrorMatchers.h"
#include "foundation/windows/SystemPath.h"
#include "lum/CURI.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace lum;
using namespace tessel::test;

namespace {

/// Leads into a folder of its own and back.
class NativePaths : public ::testing::Test {
protected:
    NativePaths() { std::filesystem::current_path(m_folder.getPath()); }
    ~NativePaths() override { std::filesystem::current_path(m_start); }

    /// The native path of something in the folder.
    String inFolder(const char* rest) const { return uriToNativePath(m_folder.getURI()) + rest; }

    std::filesystem::path m_start = std::filesystem::current_path();
    CTemporaryFolder m_folder;
};

TEST_F(NativePaths, TellsTheCurrentFolder) {
    const String folder = getCurrentWorkDirectoryAsString();
    EXPECT_TRUE(CWindowsPath(folder).isAbsolute());
    EXPECT_TRUE(std::filesystem::equivalent(folder.getText(), m_folder.getPath()));
}

TEST_F(NativePaths, ResolvesPathsFromTheCurrentFolder) {
    const String folder = getCurrentWorkDirectoryAsString();
    std::filesystem::create_directory("50% #1");
    std::filesystem::current_path("50% #1");
    EXPECT_EQ(uriToNativePath(nativePathToURI(L"..\\\x00E4.vmdk")), folder + L"\\\x00E4.vmdk");
    EXPECT_EQ(uriToNativePath(nativePathToURI("a/b.vmdk")), folder + "\\50% #1\\a\\b.vmdk");
    EXPECT_EQ(uriToNativePath(nativePathToURI("\\vm\\disk.vmdk")), folder.Left(2) + "\\vm\\disk.vmdk")
        << "the drive is the current one";
}

TEST_F(NativePaths, KeepsAbsolutePaths) {
    EXPECT_EQ(nativePathToURI("C:\\vm\\disk.vmdk"), CURI("file:///C:/vm/disk.vmdk"));
    EXPECT_EQ(uriToNativePath(CURI("file:///C:/vm/a%20b%23.vmdk")), "C:\\vm\\a b#.vmdk");
    EXPECT_EQ(nativePathToURI("\\\\server\\share\\disk.vmdk"), CURI("file://server/share/disk.vmdk"));
    EXPECT_EQ(uriToNativePath(CURI("file://server/share/disk.vmdk")), "\\\\server\\share\\disk.vmdk");
}

TEST_F(NativePaths, TakesPathsThatAreWrittenForTheSystem) {
    EXPECT_EQ(nativePathToURI("\\\\?\\C:\\vm\\disk.vmdk"), CURI("file:///C:/vm/disk.vmdk"));
    EXPECT_EQ(nativePathToURI("\\\\?\\UNC\\server\\share\\disk.vmdk"), CURI("file://server/share/disk.vmdk"));
}

TEST_F(NativePaths, RefusesWhatIsNoPathHere) {
    for (const char* const path :
         {"a?", "a:b", "C:a", "\\\\.\\PhysicalDrive0", "\\\\?\\Volume{1}\\a", "a|b", "a\nb"})
        EXPECT_THROW(nativePathToURI(path), CBadPathError) << path;
    EXPECT_THROW(uriToNativePath(CURI("file:///C:/a%5Cb")), CBadPathError);
    EXPECT_THROW(uriToNativePath(CURI("file:///C:/disk.vmdk:stream")), CBadPathError);
}

TEST_F(NativePaths, EmptyPathIsTheEmptyReference) {
    EXPECT_TRUE(nativePathToURI("").isEmpty());
    EXPECT_EQ(uriToNativePath(CURI()), "");
    EXPECT_EQ(toSystemPath(""), L"");
}

TEST_F(NativePaths, TheSystemGetsEveryNameAsItStands) {
    EXPECT_EQ(toSystemPath("C:\\vm\\.\\x\\..\\nul"), LR"(\\?\C:\vm\nul)");
    EXPECT_EQ(toSystemPath("C:/vm//disk.vmdk. "), LR"(\\?\C:\vm\disk.vmdk. )");
    EXPECT_EQ(toSystemPath("\\\\server\\share\\a"), LR"(\\?\UNC\server\share\a)");
    EXPECT_EQ(toSystemPath("a"), LR"(\\?\)" + getCurrentWorkDirectoryAsString().getWideString() + L"\\a");
    EXPECT_EQ(fromSystemPath(LR"(\\?\C:\vm\a)"), "C:\\vm\\a");
    EXPECT_EQ(fromSystemPath(LR"(\\?\UNC\server\share\a)"), "\\\\server\\share\\a");
    EXPECT_EQ(fromSystemPath(LR"(C:\a)"), "C:\\a");
    EXPECT_EQ(fromSystemPath(LR"(\\?\Volume{1}\a)"), "\\\\?\\Volume{1}\\a");
}

} // namespace
