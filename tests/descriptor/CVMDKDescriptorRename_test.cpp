// The extents of a descriptor get other file references; nothing else changes.

#include "DescriptorText.h"
#include "ErrorMatchers.h"
#include "tessel/VMDKRenamedFile.h"

#include <gtest/gtest.h>

namespace tessel::test {
namespace {

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

TEST(CVMDKDescriptorRename, EachExtentGetsWhatIsAskedForInOrder) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor(usualText);
    std::string seen;
    descriptor->renameExtents([&](const CVMDKExtentInfo& extent) {
        seen += extent.getFilename().toUTF8() + " ";
        String name = extent.getFilename();
        name.Replace("disk", "new");
        return name;
    });
    EXPECT_EQ(seen, "disk-s00000.vmdk disk-s00001.vmdk ");
    EXPECT_EQ(textOf(*descriptor), replaced(usualText, "disk-s", "new-s"));
}

TEST(CVMDKDescriptorRename, LinesWhoseNameStaysStayAsTheyAre) {
    const std::string text = "rw  8   SPARSE  \"a\"  3\nRW 8 SPARSE \"b\" 5\n";
    const P<CVMDKDescriptor> descriptor = parseDescriptor(text);
    const std::string before = textOf(*descriptor);
    descriptor->renameExtents([](const CVMDKExtentInfo& extent) { return extent.getFilename(); });
    EXPECT_EQ(textOf(*descriptor), before);
    descriptor->renameExtents([](const CVMDKExtentInfo&) { return String("c"); });
    TArray<P<CVMDKExtentInfo>> extents;
    descriptor->getExtentEntries(extents);
    ASSERT_EQ(extents.size(), 2U);
    EXPECT_EQ(extents[0]->getOffset(), 3);
    EXPECT_EQ(extents[1]->getOffset(), 5);
    EXPECT_EQ(extents[1]->getFilename(), "c");
}

TEST(CVMDKDescriptorRename, ReferenceThatWouldNotBeReadBackChangesNothing) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor(usualText);
    for (const char* const name : {"a\nb", "a\rb", "a\"b"}) {
        int count = 0;
        EXPECT_THROW(descriptor->renameExtents(
                         [&](const CVMDKExtentInfo&) { return ++count == 2 ? String(name) : String("x"); }),
                     CInvalidArgError);
        EXPECT_EQ(count, 2);
        EXPECT_EQ(textOf(*descriptor), usualText);
    }
}

TEST(CVMDKDescriptorRename, RenamedIsWhatNamesOneOtherFile) {
    const CURI main("file:///folder/disk.vmdk");
    const auto isRenamed = [&](const char* text) { return isRenamedVMDKFile(*parseDescriptor(text), main); };
    EXPECT_FALSE(isRenamed("RW 8 SPARSE \"disk.vmdk\"\n"));
    EXPECT_FALSE(isRenamed("RW 8 SPARSE \"../folder/./disk.vmdk\"\n"));
    EXPECT_FALSE(isRenamed("RW 8 SPARSE \"/folder/disk.vmdk\"\n"));
    EXPECT_TRUE(isRenamed("RW 8 SPARSE \"old.vmdk\"\n"));
    EXPECT_TRUE(isRenamed("RW 8 SPARSE \"/etc/passwd\"\n"));
    EXPECT_TRUE(isRenamed("RW 0 SPARSE \"disk.vmdk\"\nRW 8 SPARSE \"old.vmdk\"\n"));
    EXPECT_FALSE(isRenamed("RW 8 SPARSE \"old.vmdk\"\nRW 8 SPARSE \"old-s00001.vmdk\"\n"));
    EXPECT_FALSE(isRenamed("CID=1\n"));
}

} // namespace
} // namespace tessel::test
