#include "CTemporaryFolder.h"

#include "Printing.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>

using namespace tessel::test;

TEST(CTemporaryFolder, IsANewEmptyFolder) {
    const CTemporaryFolder a;
    const CTemporaryFolder b;
    EXPECT_NE(a.getPath(), b.getPath());
    EXPECT_TRUE(std::filesystem::is_directory(a.getPath()));
    EXPECT_TRUE(std::filesystem::is_empty(a.getPath()));
}

TEST(CTemporaryFolder, GoesWithAllThatIsInIt) {
    auto folder = std::make_unique<CTemporaryFolder>();
    const std::filesystem::path path = folder->getPath();
    std::filesystem::create_directory(folder->getPath("inner"));
    std::ofstream(path / "inner" / "file") << "contents";
    ASSERT_TRUE(std::filesystem::exists(path / "inner" / "file"));
    folder.reset();
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(CTemporaryFolder, GivesURIsOfItsFiles) {
    const CTemporaryFolder folder;
    EXPECT_EQ(lum::uriToNativePath(folder.getURI("a b")), lum::String(folder.getPath("a b").wstring()));
    EXPECT_EQ(folder.getURI("x").getParent().toNormalized(), folder.getURI().toNormalized());
}
