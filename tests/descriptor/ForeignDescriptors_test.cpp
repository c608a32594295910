// Descriptors as another writer of the format makes them, kept as files.

#include "DescriptorText.h"
#include "ErrorMatchers.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace tessel::test {
namespace {

std::string readForeignText(const std::string& name) {
    std::ifstream file(TESSEL_TEST_DATA_DIR "/descriptor/" + name, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << name;
    return {std::istreambuf_iterator<char>(file), {}};
}

struct ForeignRow {
    const char* file;
    const char* createType;
    unsigned int contentID;
    unsigned int parentContentID;
    const char* parentHint;
    TArray<String> extentLines;
    int64 cylinders;
};

const ForeignRow foreignRows[] = {
    {"monolithicSparse.vmdk",
     "monolithicSparse",
     0x2ED781F6,
     0xFFFFFFFF,
     "",
     {R"(RW 20480 SPARSE "a.vmdk")"},
     20},
    {"streamOptimized.vmdk",
     "streamOptimized",
     0x5986B66C,
     0xFFFFFFFF,
     "",
     {R"(RW 20480 SPARSE "c.vmdk")"},
     20},
    {"twoGbMaxExtentSparse.vmdk",
     "twoGbMaxExtentSparse",
     0x329F76EC,
     0xFFFFFFFF,
     "",
     {R"(RW 4194304 SPARSE "b-s001.vmdk")", R"(RW 4194304 SPARSE "b-s002.vmdk")",
      R"(RW 2097152 SPARSE "b-s003.vmdk")"},
     10402},
    {"childOfMonolithicSparse.vmdk",
     "monolithicSparse",
     0xA9D0BB55,
     0x2ED781F6,
     "a.vmdk",
     {R"(RW 20480 SPARSE "child.vmdk")"},
     20},
};

} // namespace

TEST(ForeignDescriptors, AreWrittenAsTheyWereRead) {
    for (const ForeignRow& row : foreignRows) {
        const std::string text = readForeignText(row.file);
        ASSERT_FALSE(text.empty()) << row.file;
        EXPECT_EQ(roundTrip(text), text);
    }
}

TEST(ForeignDescriptors, AreUnderstood) {
    for (const ForeignRow& row : foreignRows) {
        SCOPED_TRACE(row.file);
        const P<CVMDKDescriptor> descriptor = parseDescriptor(readForeignText(row.file));
        EXPECT_EQ(descriptor->getVersion(), 1);
        EXPECT_EQ(descriptor->getCreateType(), row.createType);
        EXPECT_EQ(descriptor->getContentID(), row.contentID);
        EXPECT_EQ(descriptor->getParentContentID(), row.parentContentID);
        String hint;
        descriptor->tryGetParentFileNameHint(hint);
        EXPECT_EQ(hint, row.parentHint);
        EXPECT_EQ(descriptor->getGeometryCylinders(), row.cylinders);
        EXPECT_EQ(descriptor->getGeometryHeads(), 16);
        EXPECT_EQ(descriptor->getGeometrySectors(), 63);
        EXPECT_EQ(descriptor->getAdapterType(), "ide");
        EXPECT_FALSE(descriptor->getLumCreateExtentFilesOnDemand());
        EXPECT_EQ(descriptor->getLumEncryptionAlgorithm(), "");
        TArray<P<CVMDKExtentInfo>> extents;
        descriptor->getExtentEntries(extents);
        TArray<String> lines;
        for (const auto& extent : extents)
            lines.push_back(extent->toString());
        EXPECT_EQ(lines, row.extentLines);
    }
}

TEST(ForeignDescriptors, ChangesLeaveEveryOtherLineAlone) {
    for (const ForeignRow& row : foreignRows) {
        std::string text = readForeignText(row.file);
        const P<CVMDKDescriptor> descriptor = parseDescriptor(text);
        descriptor->setContentID(0x0BADF00D);
        descriptor->setEncodingUTF8();
        const std::size_t id = text.find("\nCID=") + 5;
        text.replace(id, 8, "0badf00d");
        const std::string lastOfHeader = *row.parentHint
                                             ? "parentFileNameHint=\"a.vmdk\"\n"
                                             : "createType=\"" + std::string(row.createType) + "\"\n";
        text.insert(text.find(lastOfHeader) + lastOfHeader.size(), "encoding=\"UTF-8\"\n");
        EXPECT_EQ(textOf(*descriptor), text);
    }
}

} // namespace tessel::test
