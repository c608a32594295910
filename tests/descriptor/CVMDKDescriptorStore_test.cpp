#include "CLogRecorder.h"
#include "DescriptorText.h"
#include "ErrorMatchers.h"
#include "lum/CBufferStream.h"

#include <gtest/gtest.h>

#include <ctime>

namespace tessel::test {
namespace {

class CVMDKDescriptorStoreTest : public ::testing::Test {
protected:
    void store(CVMDKDescriptor& descriptor, int size, const Bytes& padding) {
        descriptor.store(*P<IOutStream>(new CBufferStream(&m_written, 1.0)), size, padding);
    }

    Bytes m_written;
};

const std::string shortText = "a=1\nencoding=\"UTF-8\"\n"; // 21 bytes

/// What 100,000 lines may take, in seconds of the processor. A way that grows with their square takes
/// minutes; with the sanitizers all takes several times as long.
#ifdef NDEBUG
constexpr double timeForLargeDescriptor = 1;
#else
constexpr double timeForLargeDescriptor = 20;
#endif

template <class Action>
void expectQuick(Action action) {
    const std::clock_t start = std::clock();
    action();
    EXPECT_LT(static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC, timeForLargeDescriptor);
}

} // namespace

TEST_F(CVMDKDescriptorStoreTest, FillsTheAreaUpWithPadding) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("a=1\n");
    store(*descriptor, 512, Bytes(512));
    ASSERT_EQ(m_written.getUsed(), 512);
    EXPECT_EQ(slice(m_written, 0, 21), bytesOf(shortText));
    EXPECT_EQ(slice(m_written, 21, 491), Bytes(491));
    EXPECT_EQ(textOf(CVMDKDescriptor(m_written)), shortText);
    EXPECT_EQ(textOf(*descriptor), shortText); // the encoding is declared in memory as well
}

TEST_F(CVMDKDescriptorStoreTest, TakesThePaddingAsItIs) {
    store(*parseDescriptor("a=1\n"), 24, bytesOf("abcd"));
    EXPECT_EQ(textOf(m_written), shortText + "abc");
}

TEST_F(CVMDKDescriptorStoreTest, TextThatFitsExactlyNeedsNoPadding) {
    store(*parseDescriptor("a=1\n"), 21, Bytes());
    EXPECT_EQ(textOf(m_written), shortText);
}

TEST_F(CVMDKDescriptorStoreTest, AreaIsCountedInBytesOfUTF8) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("a=\xC3\xA4\n");
    EXPECT_LUM_ERROR(
        store(*descriptor, 21, Bytes(100)), CError, -1,
        "Internal error: actual VMDK descriptor size exceeds target size (actual size: 22, target "
        "size: 21");
    store(*descriptor, 22, Bytes());
    EXPECT_EQ(textOf(m_written), "a=\xC3\xA4\nencoding=\"UTF-8\"\n");
}

TEST_F(CVMDKDescriptorStoreTest, TooSmallAnAreaIsRefusedBeforeAnythingIsWritten) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("a=1\n");
    EXPECT_LUM_ERROR(
        store(*descriptor, 20, Bytes(100)), CError, -1,
        "Internal error: actual VMDK descriptor size exceeds target size (actual size: 21, target "
        "size: 20");
    EXPECT_LUM_ERROR(
        store(*descriptor, 0, Bytes(100)), CError, -1,
        "Internal error: actual VMDK descriptor size exceeds target size (actual size: 21, target "
        "size: 0");
    EXPECT_TRUE(m_written.isEmpty());
    EXPECT_EQ(textOf(*descriptor), shortText);
}

TEST_F(CVMDKDescriptorStoreTest, TooLittlePaddingIsRefusedBeforeAnythingIsWritten) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("a=1\n");
    EXPECT_LUM_ERROR(store(*descriptor, 512, Bytes(490)), CError, -1,
                     "Internal error: pad buffer too small (size: 490, needed: 491");
    EXPECT_TRUE(m_written.isEmpty());
    store(*descriptor, 512, Bytes(491));
    EXPECT_EQ(m_written.getUsed(), 512);
}

TEST_F(CVMDKDescriptorStoreTest, TextInLatin1IsStoredInUTF8AndSaysSo) {
    const CLogRecorder log;
    store(*parseDescriptor("encoding=windows-1252\nname=\xE4\n"), 25, Bytes(100));
    EXPECT_EQ(textOf(m_written), "encoding=UTF-8\nname=\xC3\xA4\n" + std::string(2, '\0'));
    EXPECT_EQ(CVMDKDescriptor(m_written).getValue("name"), L"\x00E4");
}

// --- Large descriptors ---

TEST_F(CVMDKDescriptorStoreTest, HundredThousandExtentLinesAreReadAndWrittenAtOnce) {
    std::string text = "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\n";
    for (int i = 0; i < 100000; ++i)
        text += "RW 4192256 SPARSE \"disk-s" + std::to_string(100000 + i) + ".vmdk\"\n";
    text += "ddb.adapterType = \"lsilogic\"\n";
    P<CVMDKDescriptor> descriptor;
    expectQuick([&] { descriptor = parseDescriptor(text); });
    TArray<P<CVMDKExtentInfo>> extents;
    expectQuick([&] { descriptor->getExtentEntries(extents); });
    ASSERT_EQ(extents.size(), 100000U);
    EXPECT_EQ(extents.back()->getFilename(), "disk-s199999.vmdk");
    expectQuick([&] { store(*descriptor, static_cast<int>(text.size()), Bytes()); });
    EXPECT_EQ(m_written, bytesOf(text));
}

TEST_F(CVMDKDescriptorStoreTest, HundredThousandExtentsAreAddedAtOnce) {
    CVMDKDescriptor descriptor;
    const P<CVMDKExtentInfo> extent(new CVMDKExtentInfo("RW", 8, "SPARSE", "x", -1));
    expectQuick([&] {
        for (int i = 0; i < 100000; ++i)
            descriptor.addExtentEntry(extent.get());
    });
    TArray<P<CVMDKExtentInfo>> extents;
    descriptor.getExtentEntries(extents);
    EXPECT_EQ(extents.size(), 100000U);
}

TEST_F(CVMDKDescriptorStoreTest, LongLinesAndManyLinesAreReadAtOnce) {
    for (const unsigned char c : {'=', '"', ' ', 'a', '#', '\r'}) {
        Bytes text(5242880);
        text.fill(c);
        expectQuick([&] { EXPECT_FALSE(CVMDKDescriptor(text).hasValue("x")); });
    }
    for (const std::string line : {"\n", "a=\"\n", " \r\n", "\" \" \" \"\n"}) {
        std::string text;
        for (int i = 0; i < 100000; ++i)
            text += line;
        expectQuick([&] { EXPECT_FALSE(parseDescriptor(text)->hasValue("x")); });
    }
}

} // namespace tessel::test
