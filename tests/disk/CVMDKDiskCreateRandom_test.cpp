// What of a new disk is drawn at random: its descriptor line by line, and how the numbers are drawn.

#include "CScriptedRandomNumbers.h"
#include "DiskTest.h"

using namespace tessel;
using namespace tessel::test;
using ::testing::ElementsAre;

namespace {

class CVMDKDiskCreateRandomTest : public DiskTest {
protected:
    /// The lines of a descriptor; bytes of an encrypted disk's settings are told by their number only.
    std::vector<std::string> linesOf(const String& name = "disk.vmdk") const {
        std::vector<std::string> lines;
        const std::string text = descriptorText(name).toUTF8();
        for (std::size_t start = 0; start < text.size();) {
            const std::size_t end = text.find('\n', start);
            std::string line = text.substr(start, end - start);
            const std::size_t equalsSign = line.find('=');
            if (line.starts_with("lumEnc") && line.size() - equalsSign > 32) {
                const std::string value = line.substr(equalsSign + 1);
                if (value.find_first_not_of("0123456789abcdef") == std::string::npos)
                    line = line.substr(0, equalsSign) + "=<" + std::to_string(value.size() / 2) + " bytes>";
            }
            lines.push_back(line);
            start = end + 1;
        }
        return lines;
    }
};

} // namespace

TEST_F(CVMDKDiskCreateRandomTest, OfASingleFile) {
    const CScriptedRandomNumbers random{0x0000ABCD};
    create();
    EXPECT_THAT(linesOf(), ElementsAre("# Disk DescriptorFile", "version=1", "encoding=\"UTF-8\"",
                                       "CID=0000abcd", "parentCID=ffffffff",
                                       "createType=\"monolithicSparse\"", "", "# Extent description",
                                       "RW 16384 SPARSE \"disk.vmdk\"", "", "# The Disk Data Base", "#DDB",
                                       "ddb.adapterType = \"lsilogic\"", "ddb.geometry.sectors = \"63\"",
                                       "ddb.geometry.heads = \"255\"", "ddb.geometry.cylinders = \"2\""));
}

TEST_F(CVMDKDiskCreateRandomTest, OfSeveralFiles) {
    // 5 GiB are 10485760 sectors, 652.7 cylinders of 16065.
    const CScriptedRandomNumbers random{0x12345678};
    create({.size = 5 * GiB, .limit = 2 * GiB});
    EXPECT_THAT(linesOf(),
                ElementsAre("# Disk DescriptorFile", "version=1", "encoding=\"UTF-8\"", "CID=12345678",
                            "parentCID=ffffffff", "createType=\"twoGbMaxExtentSparse\"", "",
                            "# Extent description", "RW 4193536 SPARSE \"disk-s00000.vmdk\"",
                            "RW 4193536 SPARSE \"disk-s00001.vmdk\"",
                            "RW 2098688 SPARSE \"disk-s00002.vmdk\"", "", "# The Disk Data Base", "#DDB",
                            "ddb.adapterType = \"lsilogic\"", "ddb.geometry.sectors = \"63\"",
                            "ddb.geometry.heads = \"255\"", "ddb.geometry.cylinders = \"653\""));
}

TEST_F(CVMDKDiskCreateRandomTest, OfACompressedChildOnDemand) {
    const CScriptedRandomNumbers random{0xFEDCBA98};
    create({.size = 1 * GiB,
            .compressed = true,
            .limit = 1 * GiB,
            .parentPath = L"../Pl\u00e4tte/parent.vmdk",
            .parentID = 0xABC,
            .onDemand = true});
    EXPECT_THAT(linesOf(),
                ElementsAre("# Disk DescriptorFile", "version=1", "encoding=\"UTF-8\"", "CID=fedcba98",
                            "parentFileNameHint=\"../Pl\u00e4tte/parent.vmdk\"", "parentCID=00000abc",
                            "createType=\"streamOptimized\"", "lumCreateExtentFilesOnDemand=\"true\"", "",
                            "# Extent description", "RW 1036288 SPARSE \"disk.vmdk\"",
                            "RW 1036288 SPARSE \"disk-s00001.vmdk\"", "RW 24576 SPARSE \"disk-s00002.vmdk\"",
                            "", "# The Disk Data Base", "#DDB", "ddb.adapterType = \"lsilogic\"",
                            "ddb.geometry.sectors = \"63\"", "ddb.geometry.heads = \"255\"",
                            "ddb.geometry.cylinders = \"131\""));
}

TEST_F(CVMDKDiskCreateRandomTest, OfAnEncryptedDisk) {
    const CScriptedRandomNumbers random{1};
    create({.password = "secret"});
    EXPECT_THAT(linesOf(),
                ElementsAre("# Disk DescriptorFile", "version=1", "encoding=\"UTF-8\"", "CID=00000001",
                            "parentCID=ffffffff", "createType=\"monolithicSparse\"", "lumEncAlg=aes256cbc",
                            "lumEncIV=<16 bytes>", "lumEncKeyDerivAlg=pkcs5-pbkdf2-hmac-sha1:10000",
                            "lumEncKeyDerivSalt=<32 bytes>", "lumEncEncKey=<32 bytes>",
                            "lumEncKeyHashAlg=sha256", "lumEncKeyHash=<32 bytes>", "", "# Extent description",
                            "RW 16384 SPARSE \"disk.vmdk\"", "", "# The Disk Data Base", "#DDB",
                            "ddb.adapterType = \"lsilogic\"", "ddb.geometry.sectors = \"63\"",
                            "ddb.geometry.heads = \"255\"", "ddb.geometry.cylinders = \"2\""));
}

TEST_F(CVMDKDiskCreateRandomTest, ContentIDIsNeitherNoneNorUnknown) {
    for (const bool split : {false, true}) {
        const CScriptedRandomNumbers random{0, 0xFFFFFFFF, 0xFFFFFFFF, 0, 0x00C0FFEE, 0x11111111};
        const P<CVMDKDisk> disk = create({.limit = split ? 3 * MiB : -1});
        EXPECT_EQ(disk->getDescriptor()->getContentID(), 0x00C0FFEEU);
        EXPECT_EQ(random.getLeft(), 1);
    }
}

TEST_F(CVMDKDiskCreateRandomTest, ContentIDGivenByTheFirstChangeIsNeitherNoneNorTheOldOne) {
    const CScriptedRandomNumbers random{0x00C0FFEE, 0x00C0FFEE, 0, 0xFFFFFFFF, 0x0000BEEF};
    const P<CVMDKDisk> disk = create();
    writeAt(*disk, 0, randomBytes(1, 1));
    EXPECT_EQ(disk->getDescriptor()->getContentID(), 0x0000BEEFU);
    EXPECT_EQ(random.getLeft(), 0);
}

// --- How they are drawn ---

TEST_F(CVMDKDiskCreateRandomTest, EveryDrawHoldsTheLockOfTheGenerator) {
    CRandomDraws draws;
    const P<CVMDKDisk> disk = create({.password = "secret"});
    // Content ID, IV, salt, key.
    EXPECT_EQ(draws.getCount(), 4);
    EXPECT_EQ(draws.getCountWithoutLock(), 0);
    writeAt(*disk, 0, randomBytes(1, 1));
    EXPECT_EQ(draws.getCount(), 5);
    EXPECT_EQ(draws.getCountWithoutLock(), 0);
}

TEST_F(CVMDKDiskCreateRandomTest, LockIsNotKeptFromDrawToDraw) {
    const CScriptedRandomNumbers random{0x00C0FFEE, 0x00C0FFEE, 0, 0xFFFFFFFF, 0x0000BEEF};
    const P<CVMDKDisk> disk = create();
    CRandomDraws draws;
    writeAt(*disk, 0, randomBytes(1, 1));
    EXPECT_EQ(draws.getCount(), 4);
    EXPECT_EQ(draws.getLocks(), 4);
}
