#include "Sources.h"

#include "CTemporaryFolder.h"
#include "Errors.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using namespace tessel;
using namespace tessel::cli;
using namespace tessel::test;

namespace {

constexpr int64 MiB = 1 << 20;

/// A raw image of 8 MiB: data in the first and the fifth, holes behind each where the file system has them.
class RawSourceTest : public ::testing::Test {
protected:
    RawSourceTest() {
        const std::string data(1 << 20, 'x');
        std::ofstream file(m_path, std::ios::binary);
        file << data;
        file.seekp(4 * MiB);
        file << data;
        file.close();
        std::filesystem::resize_file(m_path, 8 * MiB);
    }

    std::string failureOfCopy(CRawSource& source) {
        std::vector<unsigned char> buffer(65536);
        try {
            for (int64 position = 0; position < source.getSizeBytes();) {
                const USourceRun run = source.findRun(position);
                const auto count = static_cast<int>(std::min<int64>(run.sizeBytes, 65536));
                if (run.isData)
                    source.read(position, buffer.data(), count);
                position += run.isData ? count : run.sizeBytes;
            }
        } catch (const CFailure& failure) {
            return failure.what();
        }
        return "nothing";
    }

    CTemporaryFolder m_folder;
    std::filesystem::path m_path = m_folder.getPath("disk.raw");
};

} // namespace

TEST_F(RawSourceTest, CoversTheWholeFile) {
    CRawSource source(CRawFile::openForReading(m_path));
    EXPECT_EQ(source.getSizeBytes(), 8 * MiB);
    EXPECT_TRUE(source.findRun(0).isData);
    EXPECT_TRUE(source.findRun(4 * MiB + 5).isData);
    EXPECT_EQ(failureOfCopy(source), "nothing");
}

TEST_F(RawSourceTest, TellsOfAFileThatBecameShorterWherever) {
    for (const int64 length : {int64{0}, MiB / 2, MiB, 3 * MiB, 4 * MiB, 5 * MiB, 8 * MiB - 1}) {
        std::filesystem::resize_file(m_path, 8 * MiB);
        CRawSource source(CRawFile::openForReading(m_path));
        std::filesystem::resize_file(m_path, static_cast<std::uintmax_t>(length));
        EXPECT_NE(failureOfCopy(source).find("disk.raw: The file became shorter while it was read"),
                  std::string::npos)
            << length;
    }
}
