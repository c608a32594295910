#include "platform.h"

#include "Errors.h"
#include "Names.h"
#include "Targets.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel::cli {
namespace {

namespace fs = std::filesystem;

/// What the program asks of the system, in a folder that goes with the test.
class PlatformTest : public testing::Test {
protected:
    PlatformTest() : m_folder(makeTemporaryName(fs::temp_directory_path())) {
        std::error_code error;
        createPrivateFolder(m_folder, error);
        EXPECT_FALSE(error) << describeSystemError(error);
    }
    ~PlatformTest() override {
        std::error_code ignored;
        fs::remove_all(m_folder, ignored);
    }

    fs::path at(const char* name) const { return m_folder / pathFromName(name); }
    fs::path write(const char* name, const std::string& text) const {
        CRawFile file = CRawFile::createNew(at(name), at(name));
        file.write(0, text.data(), static_cast<int>(text.size()));
        file.sync();
        file.close();
        return at(name);
    }
    static std::string read(const fs::path& path) {
        const CRawFile file = CRawFile::openForReading(path);
        std::string text(static_cast<std::size_t>(file.getLength()), '\0');
        file.read(0, text.data(), static_cast<int>(text.size()));
        return text;
    }
    template <class Action>
    static std::string failureOf(Action action) {
        try {
            action();
        } catch (const CFailure& failure) {
            return failure.what();
        }
        return "no failure";
    }
    static void expectFailure(const std::string& failure, const fs::path& path, const std::string& problem) {
        EXPECT_EQ(failure, nameFromPath(path) + ": " + problem);
    }

    fs::path m_folder;
};

TEST_F(PlatformTest, NamesKeepTheirCharacters) {
    for (const char* const name : {"disk.vmdk", "with blanks", "Größe 磁盘 😀.raw", "a%20b#1"}) {
        EXPECT_EQ(fromSystemPath(toSystemPath(name)), name);
        EXPECT_EQ(read(write(name, name)), name);
    }
}

TEST_F(PlatformTest, FilesReadWhatWasWrittenWhereverItStands) {
    CRawFile file = CRawFile::createNew(at("far"), at("far"));
    const std::string text = "beyond four gigabytes";
    const int64 position = (int64{5} << 30) + 1;
    file.write(position, text.data(), static_cast<int>(text.size()));
    EXPECT_EQ(file.getLength(), position + static_cast<int64>(text.size()));
    std::string found(text.size(), '\0');
    file.read(position, found.data(), static_cast<int>(found.size()));
    EXPECT_EQ(found, text);
    char byte = 'x';
    file.read(int64{3} << 30, &byte, 1);
    EXPECT_EQ(byte, '\0');
    // What was written is data, whatever the system tells of the rest.
    const CRawFile::URegion region = file.findData(position, file.getLength());
    EXPECT_EQ(region.start, position);
    EXPECT_EQ(region.end, file.getLength());
    file.close();
    EXPECT_GT(getAllocatedSize(at("far")), 0);
}

TEST_F(PlatformTest, ALengthIsSetWithoutData) {
    CRawFile file = CRawFile::createNew(at("long"), at("long"));
    file.setLength(int64{1} << 33);
    EXPECT_EQ(file.getLength(), int64{1} << 33);
    file.setLength(10);
    EXPECT_EQ(file.getLength(), 10);
}

TEST_F(PlatformTest, FailuresNameFileAndReason) {
    expectFailure(failureOf([&] { CRawFile::openForReading(at("none")); }), at("none"),
                  "Cannot open file: No such file or directory");
    write("there", "x");
    expectFailure(failureOf([&] { CRawFile::createNew(at("there"), at("shown")); }), at("shown"),
                  "Cannot make file: File exists");
    expectFailure(failureOf([&] { getAllocatedSize(at("none")); }), at("none"),
                  "Cannot look up file: No such file or directory");
    const CRawFile file = CRawFile::openForReading(at("there"));
    char bytes[2];
    expectFailure(failureOf([&] { file.read(0, bytes, 2); }), at("there"),
                  "The file became shorter while it was read");
    EXPECT_NE(failureOf([&] { syncFolder(at("none")); }), "no failure");
    syncFolder(m_folder);
}

TEST_F(PlatformTest, FilesMoveAndReplaceOnlyWhenTold) {
    write("a", "a");
    write("b", "b");
    expectFailure(failureOf([&] { moveFile(at("a"), at("b"), false); }), at("b"),
                  "The file was made by somebody else in the meantime");
    EXPECT_EQ(read(at("b")), "b");
    moveFile(at("a"), at("b"), true);
    EXPECT_EQ(read(at("b")), "a");
    EXPECT_FALSE(somethingExists(at("a")));
    moveFile(at("b"), at("c"), false);
    EXPECT_EQ(read(at("c")), "a");
    expectFailure(failureOf([&] { moveFile(at("none"), at("d"), false); }), at("d"),
                  "Cannot give the finished file its name: No such file or directory");
}

TEST_F(PlatformTest, AFileThatIsOpenIsReplaced) {
    write("old", "old");
    write("new", "new");
    {
        const CRawFile open = CRawFile::openForReading(at("old"));
        moveFile(at("new"), at("old"), true);
        EXPECT_EQ(read(at("old")), "new");
        char bytes[3];
        open.read(0, bytes, 3);
        EXPECT_EQ(std::string(bytes, 3), "old");
    }
    int count = 0;
    for ([[maybe_unused]] const auto& entry : fs::directory_iterator(m_folder))
        ++count;
    EXPECT_EQ(count, 1);
}

TEST_F(PlatformTest, NamesOfOneFileAreToldFromNamesOfTwo) {
    write("a", "same");
    write("b", "same");
    EXPECT_FALSE(areNamesOfOneFile(at("a"), at("a"))); // one name, whatever its spelling
    EXPECT_FALSE(areNamesOfOneFile(at("a"), at("b")));
    EXPECT_TRUE(areNamesOfTwoFiles(at("a"), at("b")));
    fs::create_hard_link(at("a"), at("c"));
    EXPECT_TRUE(areNamesOfOneFile(at("a"), at("c")));
    EXPECT_FALSE(areNamesOfTwoFiles(at("a"), at("c")));
    EXPECT_FALSE(areNamesOfTwoFiles(at("a"), at("none")));
    EXPECT_FALSE(areNamesOfTwoFiles(at("a"), m_folder));
}

TEST_F(PlatformTest, RealPathsAreAbsolute) {
    write("a", "a");
    std::error_code error;
    const fs::path real = followLinks(m_folder / "." / "a", error);
    EXPECT_FALSE(error);
    EXPECT_TRUE(real.is_absolute());
    EXPECT_TRUE(isSameFile(real, at("a")));
    EXPECT_FALSE(isLink(at("a")));
    EXPECT_FALSE(isLink(at("none")));
    followLinks(at("none"), error);
    EXPECT_EQ(describeSystemError(error), "No such file or directory");
}

TEST_F(PlatformTest, AccessIsCopied) {
    write("a", "a");
    write("b", "b");
    copyAccess(at("a"), at("b"));
    EXPECT_EQ(fs::status(at("a")).permissions(), fs::status(at("b")).permissions());
    EXPECT_NE(failureOf([&] { copyAccess(at("a"), at("none")); }), "no failure");
    EXPECT_NE(failureOf([&] { copyAccess(at("none"), at("b")); }), "no failure");
}

} // namespace
} // namespace tessel::cli
