#include "tessel/CVMDKDescriptorAccessor.h"

#include "CLogRecorder.h"
#include "CRecordingStream.h"
#include "DescriptorText.h"
#include "ErrorMatchers.h"
#include "HeaderSector.h"
#include "lum/CIOError.h"
#include "lum/CMemoryFileSystem.h"

#include <gmock/gmock.h>

#include <fstream>
#include <set>

namespace tessel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Operation = CRecordingStream::Operation;

const CURI uri(String("memory:/vm/disk.vmdk"));
const char* const uriName = "memory:/vm/disk.vmdk";

class CVMDKDescriptorAccessorTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_stream = new CRecordingStream(m_files->openFile(uri, IIOStream::Access_ReadWrite).get());
    }

    void writeFile(const Bytes& bytes) {
        m_stream->setLength(0);
        m_stream->seek(0);
        m_stream->write(bytes.getData(), static_cast<int>(bytes.getUsed()));
        m_stream->seek(0);
        m_stream->takeOperations();
    }
    void writeFile(std::string_view text) { writeFile(bytesOf(text)); }

    /// A sparse extent's header, then its descriptor's area, then a sector of something else.
    void writeExtent(std::string_view text, unsigned char areaSectors = 2) {
        Bytes file = makeHeader(areaSectors);
        const int64 areaSize = areaSectors * 512;
        file.setUsed(512 + areaSize + 512);
        fillRange(file, 512, 512 + areaSize, 0);
        std::copy_n(bytesOf(text).getData(), text.size(), file.getData() + 512);
        fillRange(file, 512 + areaSize, file.getUsed(), 0xEE);
        writeFile(file);
    }

    /// A header of version 1 whose descriptor is at sector 1.
    static Bytes makeHeader(unsigned char areaSectors) {
        Bytes header = makeEncryptedHeaderSector(32); // as good a reserved tail as any
        put(header, 0, {0x4B, 0x44, 0x4D, 0x56});
        put(header, 4, {1, 0, 0, 0});
        put(header, 28, {1, 0, 0, 0, 0, 0, 0, 0});
        put(header, 36, {areaSectors, 0, 0, 0, 0, 0, 0, 0});
        return header;
    }

    P<CVMDKDescriptorAccessor> open(IIOStream::Access access = IIOStream::Access_ReadWrite) {
        return new CVMDKDescriptorAccessor(m_stream.get(), access);
    }

    Bytes readFile() { return readAll(*m_files->openFile(uri, IIOStream::Access_Read)); }

    CLogRecorder m_log;
    P<CMemoryFileSystem> m_files{new CMemoryFileSystem};
    P<CRecordingStream> m_stream;
};

} // namespace

// --- Finding the descriptor ---

TEST_F(CVMDKDescriptorAccessorTest, TextFileIsReadWholeAndTold) {
    writeFile(usualText);
    const P<CVMDKDescriptorAccessor> accessor = open(IIOStream::Access_Read);
    EXPECT_FALSE(accessor->getEmbeddedInSparseExtentFile());
    EXPECT_EQ(textOf(*accessor->getDescriptor()), usualText);
    EXPECT_EQ(accessor->getDescriptorAreaSize(), bytesOf(usualText).getUsed());
    EXPECT_THAT(m_log.takeEntries(), ElementsAre(CLogRecorder::Entry{
                                         ILogSink::Level_Info,
                                         "Unsupported VMDK type identifier (0x69442023). Handle as not "
                                         "embedded descriptor...",
                                         "", ""}));
}

TEST_F(CVMDKDescriptorAccessorTest, EmbeddedDescriptorEndsBeforeThePaddingOfItsArea) {
    for (const bool encrypted : {false, true}) {
        writeExtent("a=1\nCID=7\n");
        if (encrypted)
            m_stream->write(makeEncryptedHeaderSector(32).getData(), 4);
        const P<CVMDKDescriptorAccessor> accessor = open(IIOStream::Access_Read);
        EXPECT_TRUE(accessor->getEmbeddedInSparseExtentFile());
        EXPECT_EQ(textOf(*accessor->getDescriptor()), "a=1\nCID=7\n");
        EXPECT_EQ(accessor->getDescriptorAreaSize(), 1024);
    }
    EXPECT_THAT(m_log.takeEntries(), IsEmpty());
}

TEST_F(CVMDKDescriptorAccessorTest, AreaMayBeFullAndMayStandAnywhere) {
    Bytes file = makeHeader(1);
    put(file, 28, {7, 0, 0, 0, 0, 0, 0, 0});
    file.setUsed(8 * 512);
    fillRange(file, 512, 8 * 512, 'x');
    put(file, 7 * 512, {'a', '=', 'b', '\n'});
    writeFile(file);
    EXPECT_EQ(textOf(*open()->getDescriptor()), "a=b\n" + std::string(508, 'x') + "\n");
}

TEST_F(CVMDKDescriptorAccessorTest, PositionIsTheSameAfterwards) {
    for (const bool embedded : {false, true}) {
        if (embedded)
            writeExtent("CID=7\n");
        else
            writeFile("CID=12345678\nencoding=\"UTF-8\"\n");
        for (const int64 position : {0, 5, 100000}) {
            m_stream->seek(position);
            const P<CVMDKDescriptorAccessor> accessor = open();
            EXPECT_EQ(m_stream->getPosition(), position);
            accessor->changeContentID();
            accessor->storeDescriptor(true);
            EXPECT_EQ(m_stream->getPosition(), position);
        }
    }
}

TEST_F(CVMDKDescriptorAccessorTest, VersionsOneToThreeAreRead) {
    for (const unsigned char version : {1, 2, 3}) {
        writeExtent("a=1\n");
        m_stream->seek(4);
        m_stream->write(&version, 1);
        EXPECT_EQ(open()->getDescriptor()->getValue("a"), "1");
    }
}

TEST_F(CVMDKDescriptorAccessorTest, OtherVersionsAreRefusedBeforeAnythingElse) {
    const struct {
        std::initializer_list<unsigned char> bytes;
        const char* number;
    } rows[] = {{{0, 0, 0, 0}, "0"}, {{4, 0, 0, 0}, "4"}, {{1, 0, 0, 0x80}, "2147483649"}};
    for (const auto& row : rows) {
        Bytes file = makeHeader(0); // there is no descriptor either
        put(file, 4, row.bytes);
        writeFile(file);
        EXPECT_LUM_ERROR(open(), CIOError, 6, String("VMDK file has an unsupported version: ") + row.number,
                         {{"uri", uriName}});
    }
}

TEST_F(CVMDKDescriptorAccessorTest, ExtentWithoutDescriptorIsRefused) {
    for (const int field : {28, 36}) {
        Bytes file = makeHeader(1);
        fillRange(file, field, field + 8, 0);
        writeFile(file);
        EXPECT_LUM_ERROR(open(), CIOError, 5, "No VMDK descriptor found in VMDK file.", {{"uri", uriName}});
    }
}

TEST_F(CVMDKDescriptorAccessorTest, NumbersThatFitNoFileAreRefused) {
    const struct {
        int field;
        const char* name;
    } rows[] = {{28, "descriptorOffset"}, {36, "descriptorSize"}};
    for (const auto& row : rows) {
        Bytes file = makeHeader(1);
        put(file, row.field, {0, 0, 0, 0, 0, 0, 0x40, 0}); // 2^54 sectors
        writeFile(file);
        EXPECT_LUM_ERROR(open(), CIOError, 5,
                         String("VMDK sparse header has an invalid ") + row.name +
                             ": 18014398509481984 (allowed: 0 to 18014398509481983).",
                         {{"uri", uriName}, {row.name, "18014398509481984"}});
        fillRange(file, row.field, row.field + 8, 0xFF);
        writeFile(file);
        EXPECT_LUM_ERROR(open(), CIOError, 5,
                         String("VMDK sparse header has an invalid ") + row.name +
                             ": 18446744073709551615 (allowed: 0 to 18014398509481983).",
                         {{"uri", uriName}, {row.name, "18446744073709551615"}});
    }
}

TEST_F(CVMDKDescriptorAccessorTest, AreaBehindTheEndOfTheFileIsTheStreamsError) {
    writeFile(makeHeader(2));
    EXPECT_LUM_ERROR(open(), CIOError, 4, "Unexpected end of data.",
                     {{"uri", uriName}, {"position", "512"}, {"bytesToRead", "1024"}});

    Bytes file = makeHeader(2);
    put(file, 28, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x3F, 0}); // the last sector there is
    writeFile(file);
    EXPECT_LUM_ERROR(open(), CIOError, 4, "Unexpected end of data.",
                     {{"uri", uriName}, {"position", "9223372036854775296"}, {"bytesToRead", "1024"}});
}

TEST_F(CVMDKDescriptorAccessorTest, ErrorsOfTheHeaderPassThrough) {
    Bytes file = makeHeader(1);
    file[73] = 0x0D;
    writeFile(file);
    EXPECT_LUM_ERROR(open(), CIOError, 5,
                     "VMDK image is corrupted (probably by having been transferred in FTP ASCII mode).");
}

TEST_F(CVMDKDescriptorAccessorTest, FileWithoutFourBytesIsTheStreamsError) {
    for (const char* const text : {"", "a=1"}) {
        writeFile(text);
        EXPECT_LUM_ERROR(open(), CIOError, 4, "Unexpected end of data.",
                         {{"uri", uriName}, {"position", "0"}, {"bytesToRead", "4"}});
    }
    writeFile("a=1\n");
    EXPECT_EQ(open()->getDescriptor()->getValue("a"), "1");
}

TEST_F(CVMDKDescriptorAccessorTest, DescriptorOfFiveMebibytesIsReadAndALargerOneRefused) {
    Bytes text(5242880);
    text.fill('x');
    put(text, 0, {'a', '=', '1', '\n'});
    writeFile(text);
    EXPECT_EQ(open()->getDescriptor()->getValue("a"), "1");
    m_stream->setLength(5242881);
    EXPECT_LUM_ERROR(open(), CIOError, 5, "VMDK descriptor is too big (5242881 bytes).", {{"uri", uriName}});
}

TEST_F(CVMDKDescriptorAccessorTest, AreaAboveFiveMebibytesIsRefusedWhateverTheFileHolds) {
    Bytes file = makeHeader(0);
    put(file, 36, {0x00, 0x28, 0, 0, 0, 0, 0, 0}); // 10240 sectors
    writeFile(file);
    m_stream->setLength(512 + 5242880);
    EXPECT_EQ(textOf(*open()->getDescriptor()), "");

    put(file, 36, {0x01, 0x28, 0, 0, 0, 0, 0, 0});
    writeFile(file);
    EXPECT_LUM_ERROR(open(), CIOError, 5, "VMDK descriptor is too big (5243392 bytes).", {{"uri", uriName}});
}

// --- Content IDs ---

TEST_F(CVMDKDescriptorAccessorTest, EachNewContentIDIsAnotherAndNoneThatMeansSomethingElse) {
    writeFile("CID=12345678\nencoding=\"UTF-8\"\n");
    const P<CVMDKDescriptorAccessor> accessor = open();
    std::set<unsigned int> ids;
    unsigned int previous = 0x12345678;
    for (int i = 0; i < 1000; ++i) {
        const unsigned int id = accessor->changeContentID();
        EXPECT_NE(id, 0U);
        EXPECT_NE(id, 0xFFFFFFFFU);
        EXPECT_NE(id, previous);
        EXPECT_EQ(accessor->getDescriptor()->getContentID(), id);
        ids.insert(id);
        previous = id;
    }
    EXPECT_GT(ids.size(), 990U); // they are drawn from 2^32
}

TEST_F(CVMDKDescriptorAccessorTest, NewContentIDIsNotInTheFileBeforeItIsStored) {
    writeFile("CID=12345678\nencoding=\"UTF-8\"\n");
    const P<CVMDKDescriptorAccessor> accessor = open();
    const unsigned int id = accessor->changeContentID();
    EXPECT_EQ(textOf(readFile()), "CID=12345678\nencoding=\"UTF-8\"\n");
    accessor->storeDescriptor(false);
    EXPECT_EQ(textOf(readFile()), "CID=" + toHexString(id).toUTF8() + "\nencoding=\"UTF-8\"\n");
}

TEST_F(CVMDKDescriptorAccessorTest, ContentIDIsChangedOnlyWhereThereIsOne) {
    writeFile("version=1\n");
    EXPECT_LUM_ERROR(open()->changeContentID(), CError, -1, "VMDK descriptor value 'CID' not found.");
}

TEST_F(CVMDKDescriptorAccessorTest, AccessIsAskedForBeforeTheContentID) {
    writeFile("version=1\n");
    EXPECT_LUM_ERROR(
        open(IIOStream::Access_Read)->changeContentID(), CError, -1,
        "Internal error: CVMDKDescriptorAccessor::changeContentID was called, but the accessor was "
        "not opened for writing.");
}

TEST_F(CVMDKDescriptorAccessorTest, ChangingAndStoringNeedWriteAccess) {
    writeFile("CID=12345678\n");
    const P<CVMDKDescriptorAccessor> accessor = open(IIOStream::Access_Read);
    EXPECT_LUM_ERROR(
        accessor->changeContentID(), CError, -1,
        "Internal error: CVMDKDescriptorAccessor::changeContentID was called, but the accessor was "
        "not opened for writing.");
    EXPECT_LUM_ERROR(
        accessor->storeDescriptor(true), CError, -1,
        "Internal error: CVMDKDescriptorAccessor::storeDescriptor was called, but the accessor was "
        "not opened for writing.");
    EXPECT_EQ(textOf(*accessor->getDescriptor()), "CID=12345678\n");
    EXPECT_EQ(textOf(readFile()), "CID=12345678\n");
}

// --- Storing ---

TEST_F(CVMDKDescriptorAccessorTest, StoringRewritesTheAreaAndNothingElse) {
    writeExtent("CID=7\n# " + std::string(900, 'x') + "\n");
    Bytes expected = readFile();
    const P<CVMDKDescriptorAccessor> accessor = open();
    *accessor->getDescriptor() = *parseDescriptor("CID=7\n");
    accessor->storeDescriptor(true);
    fillRange(expected, 512, 1536, 0);
    std::copy_n("CID=7\nencoding=\"UTF-8\"\n", 23, expected.getData() + 512);
    EXPECT_EQ(readFile(), expected);
}

TEST_F(CVMDKDescriptorAccessorTest, StoringFlushesWhenAsked) {
    writeExtent("CID=7\n");
    const P<CVMDKDescriptorAccessor> accessor = open();
    m_stream->takeOperations();
    accessor->storeDescriptor(false);
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(Operation{CRecordingStream::Write, 512, 23},
                                                        Operation{CRecordingStream::Write, 535, 1001}));
    accessor->storeDescriptor(true);
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(Operation{CRecordingStream::Write, 512, 23},
                                                        Operation{CRecordingStream::Write, 535, 1001},
                                                        Operation{CRecordingStream::Flush}));
}

TEST_F(CVMDKDescriptorAccessorTest, TextFileKeepsItsLength) {
    const std::string text = "CID=12345678\nencoding=\"UTF-8\"\n# long comment\n";
    writeFile(text);
    const P<CVMDKDescriptorAccessor> accessor = open();
    *accessor->getDescriptor() = *parseDescriptor("CID=12345678\n");
    accessor->storeDescriptor(true);
    const std::string shorter = "CID=12345678\nencoding=\"UTF-8\"\n";
    EXPECT_EQ(textOf(readFile()), shorter + std::string(text.size() - shorter.size(), '\0'));
    EXPECT_EQ(textOf(*open()->getDescriptor()), shorter);
}

TEST_F(CVMDKDescriptorAccessorTest, TextThatGrewByOneByteCannotBeStored) {
    const std::string text = "CID=12345678\nencoding=\"UTF-8\"\na=1\n";
    writeFile(text);
    const P<CVMDKDescriptorAccessor> accessor = open();
    accessor->getDescriptor()->setValue("a", "12", false, false);
    m_stream->takeOperations();
    EXPECT_LUM_ERROR(
        accessor->storeDescriptor(true), CError, -1,
        "Internal error: actual VMDK descriptor size exceeds target size (actual size: 35, target "
        "size: 34");
    EXPECT_THAT(m_stream->takeOperations(), IsEmpty());
    EXPECT_EQ(textOf(readFile()), text);
    accessor->getDescriptor()->setValue("a", "2", false, false);
    accessor->storeDescriptor(true);
    EXPECT_EQ(textOf(readFile()), "CID=12345678\nencoding=\"UTF-8\"\na=2\n");
}

// The text files of other writers have no room for the line that says how they are encoded.
TEST_F(CVMDKDescriptorAccessorTest, ForeignSplitDiskCannotTakeANewContentID) {
    std::ifstream file(TESSEL_TEST_DATA_DIR "/descriptor/twoGbMaxExtentSparse.vmdk", std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    ASSERT_EQ(text.size(), 414U);
    writeFile(text);
    const P<CVMDKDescriptorAccessor> accessor = open();
    accessor->changeContentID();
    EXPECT_LUM_ERROR(
        accessor->storeDescriptor(true), CError, -1,
        "Internal error: actual VMDK descriptor size exceeds target size (actual size: 431, target "
        "size: 414");
    EXPECT_EQ(textOf(readFile()), text);
}

// --- How many lines there may be ---

TEST_F(CVMDKDescriptorAccessorTest, LinesAreCountedBeforeTheTextIsParsed) {
    std::string text(131072, '\n');
    writeFile(text);
    EXPECT_EQ(textOf(*open()->getDescriptor()), text);
    writeFile(text + "a=b");
    try {
        open();
        ADD_FAILURE() << "this is one line too many";
    } catch (const CIOError& error) {
        EXPECT_EQ(error.getCode(), CIOError::Code_BadFormat);
        EXPECT_EQ(error.getMessage(), "VMDK descriptor has too many lines: 131073 (allowed: 131072).");
        EXPECT_EQ(error.getProps().getValue("lines"), "131073");
        EXPECT_EQ(error.getProps().getValue("uri"), uriName);
    }
}

TEST_F(CVMDKDescriptorAccessorTest, LinesBehindTheFirstZeroDoNotCount) {
    writeFile("a=b\n" + std::string(1, '\0') + std::string(200000, '\n'));
    EXPECT_EQ(textOf(*open()->getDescriptor()), "a=b\n");
}

} // namespace tessel::test
