// Compressed grains pass from disk to disk without being inflated or deflated.

#include "../foundation/SampleData.h"
#include "CTemporaryFolder.h"
#include "DeflateCalls.h"
#include "Verbs.h"

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

using namespace tessel;
using namespace tessel::cli;
using namespace tessel::test;

namespace {

constexpr int grain = 65536;

class PreparedCopyTest : public ::testing::Test {
protected:
    /// Data of each kind, zeros between them, and no grain that is the same as another.
    PreparedCopyTest() {
        m_image = makeText(20 * grain, 1);
        const Bytes random = makeRandom(20 * grain, 2);
        m_image.insert(m_image.end(), random.begin(), random.end());
        m_image.resize(200 * grain);
        std::copy(random.begin(), random.begin() + 300, m_image.begin() + 100 * grain + 5);
        put("disk.raw", m_image);
        putText("old", "an old password\n");
        putText("new", "a new password\n");
    }

    std::string at(const std::string& name) const { return m_folder.getPath(name.c_str()).string(); }
    void put(const std::string& name, const Bytes& bytes) const {
        std::ofstream(at(name), std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    void putText(const std::string& name, const std::string& text) const {
        put(name, Bytes(text.begin(), text.end()));
    }
    Bytes get(const std::string& name) const {
        std::ifstream file(at(name), std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(file), {});
    }

    /// Runs the verb as the program does. Returns how much it inflated and deflated.
    UDeflateCalls convert(const std::string& source, const std::string& target,
                          std::vector<std::string> options) const {
        CLI::App program;
        VerbAction chosen;
        addConvertVerb(program, chosen);
        options.insert(options.begin(), {"convert", at(source), at(target), "--quiet", "--force"});
        std::reverse(options.begin(), options.end());
        program.parse(options);
        const UDeflateCalls before = countDeflateCalls();
        chosen();
        const UDeflateCalls after = countDeflateCalls();
        return {after.deflated - before.deflated, after.inflated - before.inflated, after.made - before.made};
    }
    void expectHolds(const std::string& disk, const std::vector<std::string>& options = {}) const {
        convert(disk, "back.raw", options);
        EXPECT_TRUE(get("back.raw") == m_image) << disk;
    }

    CTemporaryFolder m_folder;
    Bytes m_image;
};

} // namespace

// Without this the zeros below would prove nothing.
TEST_F(PreparedCopyTest, CountsWhatIsDeflatedAndInflated) {
    EXPECT_GE(convert("disk.raw", "disk.vmdk", {"--compressed"}).deflated, 41);
    EXPECT_EQ(convert("disk.vmdk", "back.raw", {}).inflated, 41);
    const UDeflateCalls again = convert("disk.vmdk", "copy.vmdk", {"--compressed", "--level", "3"});
    EXPECT_EQ(again.inflated, 41);
    EXPECT_GE(again.deflated, 41);
    EXPECT_GE(convert("disk.raw", "stored.vmdk", {"--compressed", "--level", "0"}).deflated, 41);
}

// Each thread makes its own, and so does the new disk each time it is opened.
TEST_F(PreparedCopyTest, EnginesAreKeptFromGrainToGrain) {
    constexpr long fewerThanGrains = 30;
    for (const char* level : {"0", "2", "6"}) {
        const UDeflateCalls calls =
            convert("disk.raw", "disk.vmdk", {"--compressed", "--level", level, "--jobs", "2"});
        EXPECT_GE(calls.deflated, 41) << level;
        EXPECT_GE(calls.made, 1) << level;
        EXPECT_LE(calls.made, fewerThanGrains) << level;
    }
    const UDeflateCalls calls = convert("disk.vmdk", "back.raw", {"--jobs", "2"});
    EXPECT_EQ(calls.inflated, 41);
    EXPECT_LE(calls.made, fewerThanGrains);
}

TEST_F(PreparedCopyTest, NeitherInflatesNorDeflates) {
    convert("disk.raw", "disk.vmdk", {"--compressed"});
    for (const char* jobs : {"1", "2", "7"}) {
        const UDeflateCalls calls = convert("disk.vmdk", "copy.vmdk", {"--compressed", "--jobs", jobs});
        EXPECT_EQ(calls.inflated, 0) << jobs;
        EXPECT_EQ(calls.deflated, 0) << jobs;
        expectHolds("copy.vmdk");
    }
}

TEST_F(PreparedCopyTest, NeitherWhenThePasswordChanges) {
    const std::string oldFile = at("old");
    const std::string newFile = at("new");
    convert("disk.raw", "disk.vmdk", {"--compressed", "--password-file", oldFile});
    UDeflateCalls calls =
        convert("disk.vmdk", "copy.vmdk",
                {"--compressed", "--password-file", newFile, "--open-password-file", oldFile});
    EXPECT_EQ(calls.inflated, 0);
    EXPECT_EQ(calls.deflated, 0);
    expectHolds("copy.vmdk", {"--open-password-file", newFile});

    convert("disk.raw", "open.vmdk", {"--compressed"});
    calls = convert("open.vmdk", "locked.vmdk", {"--compressed", "--password-file", newFile});
    EXPECT_EQ(calls.inflated, 0);
    EXPECT_EQ(calls.deflated, 0);
    expectHolds("locked.vmdk", {"--open-password-file", newFile});
}

TEST_F(PreparedCopyTest, NeitherThroughAChainOfParents) {
    convert("disk.raw", "base.vmdk", {"--compressed"});
    std::fill_n(m_image.begin() + 3 * grain, grain, static_cast<unsigned char>('x'));
    put("disk.raw", m_image);
    convert("disk.raw", "child.vmdk", {"--parent", at("base.vmdk")});
    const UDeflateCalls calls = convert("child.vmdk", "copy.vmdk", {"--compressed", "--split=6M"});
    EXPECT_EQ(calls.inflated, 0);
    EXPECT_EQ(calls.deflated, 0);
    expectHolds("copy.vmdk");
}

// A grain of zeros in a child hides its parent's data. In a copy that stands alone it need not be stored.
TEST_F(PreparedCopyTest, InflatesOnlyWhatLooksLikeZeros) {
    convert("disk.raw", "base.vmdk", {"--compressed"});
    std::fill_n(m_image.begin() + 3 * grain, 2 * grain, static_cast<unsigned char>(0));
    put("disk.raw", m_image);
    convert("disk.raw", "child.vmdk", {"--parent", at("base.vmdk")});
    const UDeflateCalls calls = convert("child.vmdk", "copy.vmdk", {"--compressed"});
    EXPECT_EQ(calls.inflated, 2);
    EXPECT_EQ(calls.deflated, 0);
    expectHolds("copy.vmdk");
    EXPECT_LT(get("copy.vmdk").size(), get("base.vmdk").size());
}
