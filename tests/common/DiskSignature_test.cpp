#include "DiskSignature.h"

#include <gtest/gtest.h>

#include <string>

namespace tessel {
namespace {

const unsigned char* bytesOf(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

struct URow {
    const char* what;
    std::string bytes;
    bool isVMDK;
    bool isSurelyNone;
};

TEST(DiskSignatureTest, BeginningOfAFileTellsWhatItIs) {
    const URow rows[] = {
        {"sparse extent", std::string("KDMV\1\0\0\0", 8), true, false},
        {"encrypted sparse extent", "EKd\5", true, false},
        {"descriptor", "# Disk DescriptorFile\nversion=1\n", true, false},
        {"half a magic number", "KDM", false, false},
        {"other text, which may be a descriptor with another beginning", "version=1\r\n\tCID=2\n", false,
         false},
        {"nothing", "", false, false},
        {"zeros", std::string(512, '\0'), false, true},
        {"boot sector", std::string("\xEB\x63\x90\x10\x8E\xD0", 6), false, true},
    };
    for (const URow& row : rows) {
        const int count = static_cast<int>(row.bytes.size());
        EXPECT_EQ(row.isVMDK, beginsLikeVMDK(bytesOf(row.bytes), count)) << row.what;
        EXPECT_EQ(row.isSurelyNone, isSurelyNoVMDK(bytesOf(row.bytes), count)) << row.what;
    }
}

} // namespace
} // namespace tessel
