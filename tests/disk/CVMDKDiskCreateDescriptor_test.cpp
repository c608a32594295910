// The descriptor of a new disk, and what a new disk may be asked to be.

#include "DiskTest.h"

using namespace tessel;
using namespace tessel::test;
using ::testing::IsEmpty;

namespace {

class CVMDKDiskCreateDescriptorTest : public DiskTest {
protected:
    void expectRefused(const DiskOptions& options, const String& message, tessel::test::ExpectedProps props) {
        EXPECT_TRUE(throwsInvalidArgError([&] { create(options); }, "CVMDKDisk::create", message, props));
        EXPECT_THAT(listFiles(), IsEmpty());
    }
};

} // namespace

TEST_F(CVMDKDiskCreateDescriptorTest, IsFilledUpWithZeros) {
    create({.limit = 3 * MiB});
    const std::string file = getFile("disk.vmdk");
    const std::string text = descriptorText().toUTF8();
    EXPECT_EQ(file, text + std::string(file.size() - text.size(), '\0'));
}

TEST_F(CVMDKDiskCreateDescriptorTest, CylindersAreRoundedUp) {
    const struct {
        int64 size;
        const char* cylinders;
    } rows[] = {
        {8 * MiB, "2"},                    // 16384 sectors / 16065 = 1.02
        {255 * 63 * 65536, "128"},         // 16065 * 128 sectors exactly
        {255 * 63 * 65536 + 65536, "129"}, // one grain more
    };
    for (const auto& row : rows)
        EXPECT_EQ(create({.size = row.size})->getDescriptor()->getValue("ddb.geometry.cylinders"),
                  row.cylinders)
            << row.size;
}

TEST_F(CVMDKDiskCreateDescriptorTest, TwoDisksHaveDifferentContentIDs) {
    EXPECT_NE(create({}, "a.vmdk")->getDescriptor()->getContentID(),
              create({}, "b.vmdk")->getDescriptor()->getContentID());
}

// --- What is refused before anything is touched ---

TEST_F(CVMDKDiskCreateDescriptorTest, ParentIsNamedWholeOrNotAtAll) {
    const char* const message = "sParentRelPath and parentContentID must either both be specified or both "
                                "have the default values.";
    expectRefused({.parentPath = "parent.vmdk"}, message,
                  {{"parentRelPath", "parent.vmdk"}, {"parentContentID", "ffffffff"}});
    expectRefused({.parentID = 0x12ab}, message, {{"parentRelPath", ""}, {"parentContentID", "000012ab"}});
    // Before the size is looked at.
    expectRefused({.size = INT64_MAX, .parentID = 0}, message,
                  {{"parentRelPath", ""}, {"parentContentID", "00000000"}});
}

TEST_F(CVMDKDiskCreateDescriptorTest, DiskMayNotBeItsOwnParent) {
    const auto message = [](const char* parent) {
        return String("A VMDK disk cannot be its own parent: '") + parent + "'.";
    };
    for (const char* const parent :
         {"disk.vmdk", "./disk.vmdk", "../folder/disk.vmdk", "memory:/folder/disk.vmdk",
          "MEMORY:/other/../folder/disk%2evmdk", ".\\disk.vmdk"})
        for (const int64 limit : {int64{-1}, 3 * MiB})
            expectRefused({.limit = limit, .parentPath = parent, .parentID = 1}, message(parent),
                          {{"parentRelPath", parent}});
    expectRefused({.limit = 3 * MiB, .parentPath = "disk-s00002.vmdk", .parentID = 1},
                  message("disk-s00002.vmdk"), {{"parentRelPath", "disk-s00002.vmdk"}});
}

TEST_F(CVMDKDiskCreateDescriptorTest, ParentMayBeAnyOtherFile) {
    for (const char* const parent :
         {"disk-s00003.vmdk", "../disk.vmdk", "Disk.vmdk", "a \"b\".vmdk", " a "}) {
        create({.limit = 3 * MiB, .parentPath = parent, .parentID = 1});
        EXPECT_EQ(openForReading()->getDescriptor()->getParentFileNameHint(), parent);
    }
}

TEST_F(CVMDKDiskCreateDescriptorTest, NamesThatWouldNotReadBackAreRefused) {
    for (const wchar_t* const name : {L"a\"b.vmdk", L"\"", L"a:b.vmdk", L"C:\\disk.vmdk", L"a\\b.vmdk",
                                      L"a\nb.vmdk", L"a\rb.vmdk", L"disk.v\nmdk"})
        for (const int64 limit : {int64{-1}, 3 * MiB}) {
            const auto error = catchError([&] { create({.limit = limit}, name); });
            ASSERT_TRUE(error);
            ASSERT_EQ(std::string(error->getClassName()), "CInvalidArgError");
            EXPECT_EQ(static_cast<CInvalidArgError&>(*error).getSource(), "CVMDKDisk::create");
            EXPECT_TRUE(error->getMessage().EndsWith(
                "' cannot be used for a VMDK file: it may not hold quotes, colons, slashes, backslashes or "
                "line breaks."));
            ASSERT_EQ(error->getProps().getEntries().size(), 1U);
            EXPECT_EQ(error->getProps().getEntries()[0].first, "name");
            EXPECT_THAT(listFiles(), IsEmpty());
        }
    EXPECT_INVALID_ARG_ERROR(create({}, "a:b.vmdk"), "CVMDKDisk::create",
                             "The name 'a:b.vmdk' cannot be used for a VMDK file: it may not hold quotes, "
                             "colons, slashes, backslashes or line breaks.",
                             {{"name", "a:b.vmdk"}});
}

TEST_F(CVMDKDiskCreateDescriptorTest, NamesOfEscapesThatWouldNotReadBackAreRefused) {
    for (const char* const name : {"a%2Fb.vmdk", "a%5Cb.vmdk", "a%22b.vmdk", "a%0Ab.vmdk", "a%00b.vmdk"}) {
        const CURI target(String("memory:/folder/") + name);
        for (const int64 limit : {int64{-1}, 3 * MiB}) {
            EXPECT_THROW(
                CVMDKDisk::create(files(), target, 8 * MiB, "", false, -1, limit, "", noParent, false),
                CInvalidArgError)
                << name;
            EXPECT_THAT(listFiles(), IsEmpty());
        }
    }
}

TEST_F(CVMDKDiskCreateDescriptorTest, URIOfAFolderIsRefused) {
    for (const char* const folder : {"memory:/folder/", "memory:/", "memory:/folder/.."})
        for (const int64 limit : {int64{-1}, 3 * MiB})
            EXPECT_INVALID_ARG_ERROR(CVMDKDisk::create(files(), CURI(String(folder)), 8 * MiB, "", false, -1,
                                                       limit, "", noParent, false),
                                     "CVMDKDisk::create", "The URI of the VMDK disk names no file.",
                                     {{"uri", folder}});
    EXPECT_THAT(listFiles(), IsEmpty());
}

TEST_F(CVMDKDiskCreateDescriptorTest, PathOfTheParentMustFitALineAndTheDescriptor) {
    EXPECT_THROW(create({.parentPath = "a\nb", .parentID = 1}), CInvalidArgError);
    EXPECT_THROW(create({.parentPath = "a\rb", .parentID = 1}), CInvalidArgError);
    EXPECT_THAT(listFiles(), IsEmpty());

    // 65 sectors are 33280 bytes; what the descriptor holds beside the path is known from a short one.
    create({.parentPath = "p", .parentID = 1});
    const auto rest = static_cast<int64>(descriptorText().toUTF8().size()) - 1;
    m_memory->deleteFile(uri("disk.vmdk"), false);
    const std::string longest(static_cast<std::size_t>(33280 - rest), 'p');
    EXPECT_NO_THROW(create({.parentPath = longest.c_str(), .parentID = 1}));
    EXPECT_EQ(openForReading()->getDescriptor()->getParentFileNameHint().getLength(), 33280 - rest);
    m_memory->deleteFile(uri("disk.vmdk"), false);
    expectRefused({.parentPath = (longest + "p").c_str(), .parentID = 1},
                  "The VMDK descriptor has no room for its settings: 33281 bytes (at most 33280).",
                  {{"descriptorSize", "33281"}});
}

TEST_F(CVMDKDiskCreateDescriptorTest, LevelOfACompressedDiskIsCheckedAtOnce) {
    for (const int level : {-2, 10, INT_MIN, INT_MAX}) {
        EXPECT_THROW(create({.compressed = true, .level = level}), CError) << level;
        EXPECT_THAT(listFiles(), IsEmpty());
    }
    for (const int level : {-1, 0, 1, 9})
        EXPECT_NO_THROW(create({.compressed = true, .level = level})) << level;
}
