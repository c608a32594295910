#include "lum/CConfinedFileSystem.h"

#include "CTemporaryFolder.h"
#include "ErrorMatchers.h"
#include "lum/CFileSystemError.h"
#include "lum/CNativeFileSystem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

namespace lum {
namespace {

void makeFile(IFileSystem& files, const CURI& uri) {
    files.openFile(uri, IIOStream::Access_ReadWrite)->write("x", 1);
}

/// The native files, whose links lead anywhere.
class CConfinedNativeFilesTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory(path("in"));
        std::filesystem::create_directory(path("out"));
        makeFile(*m_native, uri("out/secret"));
        m_confined = new CConfinedFileSystem(m_native.get(), uri("in"));
    }
    std::filesystem::path path(const char* name) const { return m_folder.getPath(name); }
    CURI uri(const char* name) const { return nativePathToURI(String::fromUTF8(path(name).string())); }

    tessel::test::CTemporaryFolder m_folder;
    P<CNativeFileSystem> m_native{new CNativeFileSystem(false)};
    P<CConfinedFileSystem> m_confined;
};

TEST_F(CConfinedNativeFilesTest, FollowsLinksBeforeItAllowsAFile) {
    makeFile(*m_confined, uri("in/real"));
    std::filesystem::create_symlink("real", path("in/inside"));
    std::filesystem::create_symlink("../out/secret", path("in/outside"));
    std::filesystem::create_symlink(path("out"), path("in/folder"));
    std::filesystem::create_symlink("../out/new", path("in/dangling"));
    std::filesystem::create_symlink("loop", path("in/loop"));
    EXPECT_TRUE(m_confined->isAllowed(uri("in/inside")));
    EXPECT_FALSE(m_confined->isAllowed(uri("in/outside")));
    EXPECT_FALSE(m_confined->isAllowed(uri("in/folder/secret")));
    EXPECT_FALSE(m_confined->isAllowed(uri("in/folder/new")));
    EXPECT_FALSE(m_confined->isAllowed(uri("in/dangling")));
    EXPECT_THROW(m_confined->isAllowed(uri("in/loop")), CFileSystemError);
    EXPECT_THROW(m_confined->openFile(uri("in/dangling"), IIOStream::Access_ReadWrite), CFileSystemError);
    EXPECT_FALSE(std::filesystem::exists(path("out/new")));
}

TEST_F(CConfinedNativeFilesTest, FolderThatCannotBeAllowedLeavesAllAsItWas) {
    makeFile(*m_confined, uri("in/real"));
    std::filesystem::create_symlink("loop", path("loop"));
    EXPECT_THROW(m_confined->allow(uri("loop")), CFileSystemError);
    EXPECT_TRUE(m_confined->isAllowed(uri("in/real")));
    EXPECT_FALSE(m_confined->isAllowed(uri("out/secret")));
    const auto error = tessel::test::catchError([&] { m_confined->fileExists(uri("out/secret")); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getProps().getValue("allowed"), uri("in").toString(true)) << "and no folder besides";

    m_confined->allow(uri("out"));
    EXPECT_TRUE(m_confined->isAllowed(uri("out/secret")));
    EXPECT_TRUE(m_confined->isAllowed(uri("in/real")));
}

TEST_F(CConfinedNativeFilesTest, TakesAFolderThatIsItselfReachedThroughALink) {
    std::filesystem::create_symlink("in", path("alias"));
    const P<CConfinedFileSystem> confined(new CConfinedFileSystem(m_native.get(), uri("alias")));
    makeFile(*confined, uri("alias/a"));
    EXPECT_TRUE(confined->fileExists(uri("alias/a")));
    EXPECT_TRUE(confined->isAllowed(uri("in/a")));
    EXPECT_FALSE(confined->isAllowed(uri("out/secret")));
}

TEST_F(CConfinedNativeFilesTest, FollowsLinksOfWhatDoesNotExistYet) {
    EXPECT_EQ(m_native->followLinks(uri("in/missing/file")), m_native->followLinks(uri("in"))
                                                                 << String("missing") << String("file"));
    std::filesystem::create_symlink(path("out"), path("in/folder"));
    EXPECT_EQ(m_native->followLinks(uri("in/folder/missing")), m_native->followLinks(uri("out"))
                                                                   << String("missing"));
}

// As lock files do.
TEST_F(CConfinedNativeFilesTest, FollowsLinksWhileOthersMakeAndDeleteTheFile) {
    const CURI expected = m_native->followLinks(uri("in")) << String("lock");
    std::atomic<bool> isOver = false;
    std::thread other([&] {
        while (!isOver) {
            makeFile(*m_native, uri("in/lock"));
            m_native->deleteFile(uri("in/lock"), false);
        }
    });
    int right = 0;
    std::string failure;
    constexpr int tries = 20000;
    try {
        for (int i = 0; i < tries; ++i)
            right += m_native->followLinks(uri("in/lock")) == expected ? 1 : 0;
    } catch (const CError& error) {
        failure = error.getMessage().toUTF8();
    }
    isOver = true;
    other.join();
    EXPECT_EQ(failure, "");
    EXPECT_EQ(right, tries);
}

} // namespace
} // namespace lum
