// Keeps the examples of docs/format.md true: each disk is made again, and the bytes of the file are
// compared with the dump and with the table that explains it.

#include "Bytes.h"
#include "lum/CMemoryFileSystem.h"
#include "tessel/CVMDKDescriptorAccessor.h"
#include "tessel/CVMDKDisk.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>

namespace tessel::test {
namespace {

const char* const documentPath = TESSEL_TEST_DATA_DIR "/../../docs/format.md";

constexpr unsigned int contentID = 0x6D5B3C21;
constexpr int64 diskSize = 8388608;
constexpr int64 grainSize = 65536;
const std::string grainText = "Hello, grain one!\n";

/// What the document shows of one file.
struct Example {
    Bytes file;
    /// Pieces of the file that are explained: offset and bytes.
    TArray<std::pair<int64, Bytes>> fields;
};

int64 parseOffset(const std::string& hex) {
    return std::stoll(hex, nullptr, 16);
}

Bytes parseBytes(const std::string& text) {
    String digits(text.c_str());
    digits.Replace(" ", "");
    Bytes bytes;
    hexDecode(digits, bytes);
    return bytes;
}

/// Reads the dump called `name`, and the table of fields behind it.
Example readExample(const std::string& name) {
    static const std::regex dumpLine("([0-9a-f]{8})  ((?:[0-9a-f]{2} {1,2}){16}) ?\\|(.{16})\\|");
    static const std::regex lengthLine("[0-9a-f]{8}");
    static const std::regex fieldLine("\\| ([0-9a-f]{8}) \\| ((?:[0-9a-f]{2} )+)\\| .+ \\|");
    Example example;
    std::ifstream document(documentPath);
    EXPECT_TRUE(document.is_open()) << documentPath;
    enum { Before, InDump, Behind } place = Before;
    std::smatch match;
    for (std::string line; std::getline(document, line);) {
        if (line.starts_with("```hexdump"))
            place = line == "```hexdump " + name ? InDump : place == InDump ? Behind : Before;
        else if (line == "```" && place == InDump)
            place = Behind;
        else if (place == InDump && std::regex_match(line, match, lengthLine))
            example.file.setUsed(parseOffset(line));
        else if (place == InDump && std::regex_match(line, match, dumpLine)) {
            const int64 offset = parseOffset(match[1]);
            const Bytes bytes = parseBytes(match[2]);
            std::string letters;
            for (int64 i = 0; i < 16; ++i)
                letters += bytes[i] >= 0x20 && bytes[i] < 0x7F ? static_cast<char>(bytes[i]) : '.';
            EXPECT_EQ(letters, match[3]) << line;
            example.file.setUsed(std::max(example.file.getUsed(), offset + 16));
            std::copy_n(bytes.getData(), 16, example.file.getData() + offset);
        } else if (place == InDump)
            ADD_FAILURE() << "No line of a dump: " << line;
        else if (place == Behind && std::regex_match(line, match, fieldLine))
            example.fields.emplace_back(parseOffset(match[1]), parseBytes(match[2]));
    }
    return example;
}

class FormatDocumentTest : public ::testing::Test {
protected:
    /// A new disk with the content ID of the document.
    P<CVMDKDisk> makeDisk(const char* name, bool compressed) {
        m_uri = CURI(String("memory:/")) << String(name);
        CVMDKDisk::create(m_files.get(), m_uri, diskSize, String(), compressed, -1, -1, String(), 0xFFFFFFFF,
                          false);
        const P<IIOStream> stream = m_files->openFile(m_uri, IIOStream::Access_ReadWrite);
        const P<CVMDKDescriptorAccessor> accessor(
            new CVMDKDescriptorAccessor(stream.get(), IIOStream::Access_ReadWrite));
        accessor->getDescriptor()->setContentID(contentID);
        accessor->storeDescriptor(true);
        const P<CVMDKDisk> disk = open(IIOStream::Access_ReadWrite);
        disk->setContentIDUpdatesEnabled(false);
        return disk;
    }

    P<CVMDKDisk> open(IIOStream::Access access) {
        return new CVMDKDisk(m_files.get(), m_uri, access, String(), -1, nullptr, nullptr);
    }

    void expectFileIs(const Example& example) {
        const Bytes file = readAll(*m_files->openFile(m_uri, IIOStream::Access_Read));
        ASSERT_EQ(file.getUsed(), example.file.getUsed());
        for (int64 i = 0; i < file.getUsed(); i += 16)
            ASSERT_EQ(slice(file, i, 16), slice(example.file, i, 16)) << "at byte " << i;
        for (const auto& [offset, bytes] : example.fields)
            EXPECT_EQ(slice(file, offset, bytes.getUsed()), bytes) << "at byte " << offset;
        EXPECT_GE(example.fields.size(), 20U);
        // Each byte of the header is explained, one field after the other.
        int64 explained = 0;
        for (std::size_t i = 0; i < example.fields.size() && explained < 79; ++i) {
            EXPECT_EQ(example.fields[i].first, explained);
            explained += example.fields[i].second.getUsed();
        }
        EXPECT_EQ(explained, 79);
    }

    /// Grain 1 begins with the text, and all else is zeros.
    void expectContents() {
        const P<CVMDKDisk> disk = open(IIOStream::Access_Read);
        Bytes contents(diskSize);
        disk->read(contents.getData(), static_cast<int>(diskSize));
        Bytes expected(diskSize);
        std::copy(grainText.begin(), grainText.end(), expected.getData() + grainSize);
        EXPECT_TRUE(contents == expected);
    }

    P<CMemoryFileSystem> m_files{new CMemoryFileSystem};
    CURI m_uri;
};

} // namespace

TEST_F(FormatDocumentTest, ShowsThePlainDiskAsItIs) {
    const Example example = readExample("plain");
    ASSERT_EQ(example.file.getUsed(), 2 * grainSize);
    P<CVMDKDisk> disk = makeDisk("plain.vmdk", false);
    disk->seek(grainSize);
    disk->write(grainText.data(), static_cast<int>(grainText.size()));
    disk = nullptr;
    expectFileIs(example);
    expectContents();
}

// The record is taken from the document: what a compressor makes of the grain is its own business, but
// the grain must come out of it.
TEST_F(FormatDocumentTest, ShowsTheCompressedDiskAsItIs) {
    const Example example = readExample("compressed");
    ASSERT_EQ(example.file.getUsed(), grainSize + 4 * 512);
    P<CVMDKDisk> disk = makeDisk("compressed.vmdk", true);
    disk->seek(grainSize);
    disk->writePreparedGrainData(slice(example.file, grainSize, 512));
    disk = nullptr;
    expectFileIs(example);
    expectContents();
}

} // namespace tessel::test
