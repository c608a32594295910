#include "CLogRecorder.h"
#include "DescriptorText.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CVMDKDescriptorEncodingTest : public ::testing::Test {
protected:
    using Entry = CLogRecorder::Entry;

    /// The value of "name" when the text declares `encoding` and the name's bytes are `bytes`.
    static String readName(const std::string& encodingLine, const std::string& bytes) {
        return parseDescriptor(encodingLine + "name=\"" + bytes + "\"\n")->getValue("name");
    }

    CLogRecorder m_log;
};

const std::string utf8Name = "\xC3\xA4\xE4\xB8\xAD";
const String name = L"\x00E4\x4E2D";
const String nameAsLatin1 = L"\x00C3\x00A4\x00E4\x00B8\x00AD";

} // namespace

TEST_F(CVMDKDescriptorEncodingTest, UTF8IsMeantBySeveralNamesAndByNone) {
    for (const char* const line :
         {"", "encoding=\"UTF-8\"\n", "encoding=UTF-8\n", "encoding=\"utf_8\"\n", "ENCODING=\"Utf8\"\n",
          "encoding=\"_-U-T-F-_8\"\n", "encoding=\"\"\n", "encoding=\n", "encoding=\"-_\"\n",
          "# encoding=\"latin1\"\n", "encoding = \"UTF-8\"\r\n"})
        EXPECT_EQ(readName(line, utf8Name), name) << line;
    EXPECT_THAT(m_log.takeEntries(), IsEmpty());
}

TEST_F(CVMDKDescriptorEncodingTest, Latin1IsMeantBySeveralNames) {
    for (const char* const line : {"encoding=\"Latin-1\"\n", "encoding=latin1\n", "encoding=\"LATIN_1\"\n",
                                   "encoding=\"ISO-8859-1\"\n", "encoding=\"iso8859_1\"\n"})
        EXPECT_EQ(readName(line, utf8Name), nameAsLatin1) << line;
    EXPECT_THAT(m_log.takeEntries(), IsEmpty());
}

TEST_F(CVMDKDescriptorEncodingTest, UnknownEncodingIsTakenForLatin1WithAWarning) {
    EXPECT_EQ(readName("encoding=\"windows-1252\"\n", utf8Name), nameAsLatin1);
    EXPECT_THAT(m_log.takeEntries(),
                ElementsAre(Entry{ILogSink::Level_Warning,
                                  "Unknown VMDK descriptor encoding 'windows-1252'. Using Latin-1 instead.",
                                  "", ""}));
    EXPECT_EQ(readName("encoding=GBK\n", "x"), "x");
    EXPECT_THAT(m_log.takeEntries(),
                ElementsAre(Entry{ILogSink::Level_Warning,
                                  "Unknown VMDK descriptor encoding 'GBK'. Using Latin-1 instead.", "", ""}));
}

TEST_F(CVMDKDescriptorEncodingTest, BytesThatAreNoUTF8AreTakenForLatin1WithAWarning) {
    EXPECT_EQ(readName("encoding=\"UTF-8\"\n", "\xE4"), L"\x00E4");
    EXPECT_THAT(m_log.takeEntries(),
                ElementsAre(Entry{ILogSink::Level_Warning,
                                  "Ignoring VMDK descriptor decoding error (encoding: 'UTF-8'. Using Latin-1 "
                                  "encoding instead.",
                                  "Invalid UTF-8 text", ""}));
    EXPECT_EQ(readName("", "\xC3\xA4\xC3"), L"\x00C3\x00A4\x00C3");
    EXPECT_THAT(m_log.takeEntries(),
                ElementsAre(Entry{
                    ILogSink::Level_Warning,
                    "Ignoring VMDK descriptor decoding error (encoding: ''. Using Latin-1 encoding instead.",
                    "Invalid UTF-8 text", ""}));
}

TEST_F(CVMDKDescriptorEncodingTest, FirstEncodingCountsWhereverItStands) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("a=\xE4\nencoding=latin1\nencoding=utf8\n");
    EXPECT_EQ(descriptor->getValue("a"), L"\x00E4");
    EXPECT_THAT(m_log.takeEntries(), IsEmpty());
}

TEST_F(CVMDKDescriptorEncodingTest, TextEndsAtTheFirstZeroByte) {
    EXPECT_EQ(textOf(CVMDKDescriptor(bytesOf(std::string_view("a=1\nb=2\0c=3\n", 12)))), "a=1\nb=2\n");
    EXPECT_EQ(textOf(CVMDKDescriptor(bytesOf(std::string_view("a=1\n\0\xFF\xFF", 7)))), "a=1\n");
    EXPECT_EQ(textOf(CVMDKDescriptor(Bytes(1024))), "");
    EXPECT_EQ(textOf(CVMDKDescriptor(Bytes())), "");
    EXPECT_THAT(m_log.takeEntries(), IsEmpty());
}

TEST_F(CVMDKDescriptorEncodingTest, AnyBytesCanBeParsed) {
    Bytes bytes = patternBytes(5000);
    for (int64 i = 0; i < bytes.getUsed(); ++i)
        bytes[i] = bytes[i] == 0 ? '\n' : bytes[i];
    const std::string once = textOf(CVMDKDescriptor(bytes));
    EXPECT_EQ(roundTrip(once), once);
    EXPECT_EQ(m_log.takeEntries().size(), 1U); // that it is no UTF-8
}

} // namespace tessel::test
