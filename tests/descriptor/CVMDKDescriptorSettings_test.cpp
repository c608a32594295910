#include "DescriptorText.h"
#include "ErrorMatchers.h"

#include <gtest/gtest.h>

namespace tessel::test {
namespace {

/// One typed setting: how it is set, the line that this makes, and what is read back, as text.
struct SettingRow {
    const char* name;
    void (*set)(CVMDKDescriptor&);
    String (*get)(const CVMDKDescriptor&);
    const char* line;
    const char* readBack;
    bool inHeader;
};

using D = CVMDKDescriptor;

Bytes someBytes() {
    return bytesOf({0x00, 0x9F, 0xAB, 0xFF});
}

String hex(const Bytes& bytes) {
    return hexEncode(bytes, false);
}

const SettingRow settingRows[] = {
    {"version", [](D& d) { d.setVersion(1); }, [](const D& d) { return toDecimal(d.getVersion()); },
     "version=1", "1", true},
    {"CID", [](D& d) { d.setContentID(0xAB12); }, [](const D& d) { return toHexString(d.getContentID()); },
     "CID=0000ab12", "0000ab12", true},
    {"parentCID", [](D& d) { d.setParentContentID(0xFFFFFFFE); },
     [](const D& d) { return toHexString(d.getParentContentID()); }, "parentCID=fffffffe", "fffffffe", true},
    {"createType", [](D& d) { d.setCreateType("monolithicSparse"); },
     [](const D& d) { return d.getCreateType(); }, "createType=\"monolithicSparse\"", "monolithicSparse",
     true},
    {"parentFileNameHint", [](D& d) { d.setParentFileNameHint("../a b.vmdk"); },
     [](const D& d) { return d.getParentFileNameHint(); }, "parentFileNameHint=\"../a b.vmdk\"",
     "../a b.vmdk", true},
    {"ddb.adapterType", [](D& d) { d.setAdapterType("lsilogic"); },
     [](const D& d) { return d.getAdapterType(); }, "ddb.adapterType = \"lsilogic\"", "lsilogic", false},
    {"ddb.geometry.cylinders", [](D& d) { d.setGeometryCylinders(INT64_MAX); },
     [](const D& d) { return toDecimal(d.getGeometryCylinders()); },
     "ddb.geometry.cylinders = \"9223372036854775807\"", "9223372036854775807", false},
    {"ddb.geometry.heads", [](D& d) { d.setGeometryHeads(255); },
     [](const D& d) { return toDecimal(d.getGeometryHeads()); }, "ddb.geometry.heads = \"255\"", "255",
     false},
    {"ddb.geometry.sectors", [](D& d) { d.setGeometrySectors(-63); },
     [](const D& d) { return toDecimal(d.getGeometrySectors()); }, "ddb.geometry.sectors = \"-63\"", "-63",
     false},
    {"lumCreateExtentFilesOnDemand", [](D& d) { d.setLumCreateExtentFilesOnDemand(true); },
     [](const D& d) { return toText(d.getLumCreateExtentFilesOnDemand()); },
     "lumCreateExtentFilesOnDemand=\"true\"", "true", true},
    {"lumEncAlg", [](D& d) { d.setLumEncryptionAlgorithm("aes256cbc"); },
     [](const D& d) { return d.getLumEncryptionAlgorithm(); }, "lumEncAlg=aes256cbc", "aes256cbc", true},
    {"lumEncKeyHashAlg", [](D& d) { d.setLumEncryptionKeyHashAlgorithm("sha256"); },
     [](const D& d) { return d.getLumEncryptionKeyHashAlgorithm(); }, "lumEncKeyHashAlg=sha256", "sha256",
     true},
    {"lumEncKeyDerivAlg", [](D& d) { d.setLumEncryptionKeyDerivationAlgorithm("pkcs5:1"); },
     [](const D& d) { return d.getLumEncryptionKeyDerivationAlgorithm(); }, "lumEncKeyDerivAlg=pkcs5:1",
     "pkcs5:1", true},
    {"lumEncIV", [](D& d) { d.setLumEncryptionIV(someBytes()); },
     [](const D& d) { return hex(d.getLumEncryptionIV()); }, "lumEncIV=009fabff", "009fabff", true},
    {"lumEncEncKey", [](D& d) { d.setLumEncryptedEncryptionKey(someBytes()); },
     [](const D& d) { return hex(d.getLumEncryptedEncryptionKey()); }, "lumEncEncKey=009fabff", "009fabff",
     true},
    {"lumEncKeyHash", [](D& d) { d.setLumEncryptionKeyHash(someBytes()); },
     [](const D& d) { return hex(d.getLumEncryptionKeyHash()); }, "lumEncKeyHash=009fabff", "009fabff", true},
    {"lumEncKeyDerivSalt", [](D& d) { d.setLumEncryptionKeyDerivationSalt(someBytes()); },
     [](const D& d) { return hex(d.getLumEncryptionKeyDerivationSalt()); }, "lumEncKeyDerivSalt=009fabff",
     "009fabff", true},
};

const SettingRow& rowOf(const String& name) {
    for (const SettingRow& row : settingRows)
        if (name == row.name)
            return row;
    throw CError("There is no setting of this name: " + name);
}

} // namespace

TEST(CVMDKDescriptorSettings, AreWrittenUnderTheirKeysInTheirPlaces) {
    for (const SettingRow& row : settingRows) {
        const P<CVMDKDescriptor> descriptor = parseDescriptor("a=1\nRW 8 SPARSE \"x\"\nb=2\n");
        row.set(*descriptor);
        const std::string line = row.line + std::string("\n");
        EXPECT_EQ(textOf(*descriptor), row.inHeader ? "a=1\n" + line + "RW 8 SPARSE \"x\"\nb=2\n"
                                                    : "a=1\nRW 8 SPARSE \"x\"\nb=2\n" + line);
    }
}

TEST(CVMDKDescriptorSettings, AreReadBackFromWhatWasWritten) {
    for (const SettingRow& row : settingRows) {
        EXPECT_EQ(row.get(*parseDescriptor(row.line)), row.readBack) << row.name;
        CVMDKDescriptor descriptor;
        row.set(descriptor);
        EXPECT_EQ(row.get(descriptor), row.readBack) << row.name;
    }
}

TEST(CVMDKDescriptorSettings, MissingOnesAreErrorsUnlessTheyAreOptional) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("# nothing here\n");
    for (const SettingRow& row : settingRows) {
        const String name = row.name;
        if (name == "parentCID" || name == "lumCreateExtentFilesOnDemand" || name == "lumEncAlg")
            continue;
        EXPECT_LUM_ERROR(row.get(*descriptor), CError, -1, "VMDK descriptor value '" + name + "' not found.");
    }
    EXPECT_EQ(descriptor->getParentContentID(), 0xFFFFFFFFU);
    EXPECT_FALSE(descriptor->getLumCreateExtentFilesOnDemand());
    EXPECT_EQ(descriptor->getLumEncryptionAlgorithm(), "");
    String hint = "left over";
    EXPECT_FALSE(descriptor->tryGetParentFileNameHint(hint));
    EXPECT_EQ(hint, "");
}

TEST(CVMDKDescriptorSettings, HintIsFoundWithoutAnError) {
    String hint;
    EXPECT_TRUE(parseDescriptor("PARENTFILENAMEHINT=a.vmdk\n")->tryGetParentFileNameHint(hint));
    EXPECT_EQ(hint, "a.vmdk");
}

TEST(CVMDKDescriptorSettings, OddSpellingsOfNumbers) {
    const struct {
        const char* line;
        const char* setting;
        const char* expected;
    } rows[] = {
        {"version=\"3\"\n", "version", "3"},
        {"version=x\n", "version", "0"},
        {"version=\n", "version", "0"},
        {"version=4294967297\n", "version", "1"}, // the low 32 bits
        {"CID=FFFFFFFE\n", "CID", "fffffffe"},
        {"CID=7\n", "CID", "00000007"},
        {"CID=112345678\n", "CID", "12345678"}, // the low 32 bits
        {"CID=0x1\n", "CID", "00000000"},
        {"CID=\n", "CID", "00000000"},
        {"parentCID=\"FFFFFFFF\"\n", "parentCID", "ffffffff"},
        {"parentCID=1ffffffff\n", "parentCID", "ffffffff"},
        {"ddb.geometry.heads=\"many\"\n", "ddb.geometry.heads", "0"},
        {"ddb.geometry.heads=9223372036854775808\n", "ddb.geometry.heads", "0"},
        {"lumCreateExtentFilesOnDemand=Yes\n", "lumCreateExtentFilesOnDemand", "true"},
        {"lumCreateExtentFilesOnDemand=\"0\"\n", "lumCreateExtentFilesOnDemand", "false"},
        {"lumEncIV=009FABFF\n", "lumEncIV", "009fabff"},
        {"lumEncIV=\n", "lumEncIV", ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(rowOf(row.setting).get(*parseDescriptor(row.line)), row.expected) << row.line;
}

TEST(CVMDKDescriptorSettings, TextThatIsNoValueIsAnErrorWhereItMatters) {
    EXPECT_LUM_ERROR(parseDescriptor("parentCID=\n")->getParentContentID(), CError, -1,
                     "Not a number: ", {{"text", ""}});
    EXPECT_LUM_ERROR(parseDescriptor("parentCID=xyz\n")->getParentContentID(), CError, -1,
                     "Not a number: xyz", {{"text", "xyz"}});
    EXPECT_LUM_ERROR(
        parseDescriptor("lumCreateExtentFilesOnDemand=maybe\n")->getLumCreateExtentFilesOnDemand(), CError,
        -1, "Not a truth value: maybe", {{"text", "maybe"}});
    for (const char* const name : {"lumEncIV", "lumEncEncKey", "lumEncKeyHash", "lumEncKeyDerivSalt"}) {
        const std::string prefix = name + std::string("=");
        EXPECT_LUM_ERROR(rowOf(name).get(*parseDescriptor(prefix + "abc")), CError, -1,
                         "Invalid hexadecimal text", {{"position", "3"}});
        EXPECT_LUM_ERROR(rowOf(name).get(*parseDescriptor(prefix + "abxx")), CError, -1,
                         "Invalid hexadecimal text", {{"position", "2"}});
    }
}

TEST(CVMDKDescriptorSettings, SwitchingOffIsWrittenToo) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("lumcreateextentfilesondemand=yes\n");
    descriptor->setLumCreateExtentFilesOnDemand(false);
    EXPECT_EQ(textOf(*descriptor), "lumcreateextentfilesondemand=false\n");
    EXPECT_FALSE(descriptor->getLumCreateExtentFilesOnDemand());
}

TEST(CVMDKDescriptorSettings, ContentIDsHaveEightDigitsSoThatLinesKeepTheirLength) {
    const P<CVMDKDescriptor> descriptor = parseDescriptor("CID=12345678\nparentCID=12345678\n");
    for (const unsigned int id : {0U, 1U, 0x80000000U, 0xFFFFFFFFU}) {
        descriptor->setContentID(id);
        descriptor->setParentContentID(id);
        EXPECT_EQ(textOf(*descriptor).size(), 32U);
        EXPECT_EQ(descriptor->getContentID(), id);
        EXPECT_EQ(descriptor->getParentContentID(), id);
    }
}

} // namespace tessel::test
