#include "lum/CBufferStream.h"

#include "ErrorMatchers.h"

#include <gtest/gtest.h>

#include <string>

using namespace lum;
using namespace tessel::test;

namespace {

void put(IOutStream& stream, const std::string& text) {
    stream.write(text.data(), static_cast<int>(text.size()));
}

std::string contents(const TBuffer<unsigned char>& buffer) {
    return std::string(reinterpret_cast<const char*>(buffer.getData()),
                       static_cast<std::size_t>(buffer.getUsed()));
}

} // namespace

TEST(CBufferStream, StandsOnTheUsedPartOfItsBuffer) {
    TBuffer<unsigned char> buffer(reinterpret_cast<const unsigned char*>("hello"), 5);
    buffer.setUsed(4);
    CBufferStream stream(&buffer, 1.0);
    EXPECT_EQ(stream.getLength(), 4);
    stream.seek(3);
    put(stream, "LO!");
    EXPECT_EQ(contents(buffer), "helLO!");
    EXPECT_TRUE(stream.getURI().isEmpty());
}

TEST(CBufferStream, BytesThatComeBackIntoUseAreZero) {
    TBuffer<unsigned char> buffer(reinterpret_cast<const unsigned char*>("abcdefgh"), 8);
    CBufferStream stream(&buffer, 1.0);
    buffer.setUsed(2);
    stream.setLength(4);
    EXPECT_EQ(contents(buffer), std::string("ab\0\0", 4));
    stream.seek(6);
    put(stream, "x");
    EXPECT_EQ(contents(buffer), std::string("ab\0\0\0\0x", 7));
}

TEST(CBufferStream, GrowsByItsFactor) {
    TBuffer<unsigned char> buffer(100);
    CBufferStream stream(&buffer, 1.5);
    stream.seek(100);
    put(stream, "x");
    EXPECT_EQ(buffer.getAllocated(), 150);
    stream.setLength(1000);
    EXPECT_EQ(buffer.getAllocated(), 1000);
}

TEST(CBufferStream, GrowsByWhatIsNeededWithFactorsThatLeadNowhere) {
    for (const double factor : {1.0, 0.0, -3.0, 1e30, std::numeric_limits<double>::quiet_NaN()}) {
        TBuffer<unsigned char> buffer(100);
        CBufferStream stream(&buffer, factor);
        stream.setLength(101);
        EXPECT_EQ(buffer.getAllocated(), 101) << factor;
    }
}

TEST(CBufferStream, CannotBeLocked) {
    TBuffer<unsigned char> buffer;
    CBufferStream stream(&buffer, 1.0);
    EXPECT_FILE_SYSTEM_ERROR(stream.lockRange(1, 2, IStreamBase::LockType_Shared),
                             CFileSystemError::Problem_NotSupported, "Cannot lock a stream in memory.",
                             {{"start", "1"}, {"length", "2"}});
}
