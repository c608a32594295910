#include "lum/CDataInStream.h"

#include "ErrorMatchers.h"
#include "lum/CBufferStream.h"

#include <gtest/gtest.h>

using namespace lum;

namespace {

class CDataInStreamTest : public ::testing::Test {
protected:
    const unsigned char m_bytes[15] = {0xfe, 0x01, 0x82, 0x78, 0x56, 0x34, 0x92, 0xef,
                                       0xcd, 0xab, 0x89, 0x67, 0x45, 0x23, 0x81};
    TBuffer<unsigned char> m_buffer{m_bytes, 15};
    P<IIOStream> m_stream{new CBufferStream(&m_buffer, 1.0)};
    CDataInStream m_in{m_stream.get()};
};

} // namespace

TEST_F(CDataInStreamTest, ReadsLittleEndianNumbers) {
    EXPECT_EQ(m_in.readUInt8(), 0xfe);
    EXPECT_EQ(m_in.readUInt16(), 0x8201);
    EXPECT_EQ(m_in.readUInt32(), 0x92345678u);
    EXPECT_EQ(m_in.readUInt64(), 0x81234567'89abcdefu);
    EXPECT_EQ(m_in.getPosition(), 15);
    EXPECT_EQ(m_in.getLength(), 15);
}

TEST_F(CDataInStreamTest, NeedsNoAlignment) {
    m_in.seek(3);
    EXPECT_EQ(m_in.readUInt16(), 0x5678);
    m_in.seek(5);
    EXPECT_EQ(m_in.readUInt32(), 0xcdef9234u);
    m_in.seek(1);
    EXPECT_EQ(m_in.readUInt64(), 0xcdef9234'56788201u);
}

TEST_F(CDataInStreamTest, ReadsBytes) {
    unsigned char bytes[3] = {};
    m_in.seek(1);
    m_in.read(bytes, 3);
    EXPECT_EQ(bytes[0], 0x01);
    EXPECT_EQ(bytes[2], 0x78);
}

TEST_F(CDataInStreamTest, SharesThePositionWithItsStream) {
    m_stream->seek(1);
    EXPECT_EQ(m_in.readUInt8(), 0x01);
    EXPECT_EQ(m_stream->getPosition(), 2);
    EXPECT_EQ(&m_in.getStream(), m_stream.get());
}

TEST_F(CDataInStreamTest, NumberCutByTheEndFails) {
    m_in.seek(14);
    EXPECT_LUM_ERROR(m_in.readUInt16(), CIOError, 4, "Unexpected end of data.",
                     {{"position", "14"}, {"bytesToRead", "2"}});
    EXPECT_LUM_ERROR(m_in.readUInt64(), CIOError, 4, "Unexpected end of data.",
                     {{"position", "14"}, {"bytesToRead", "8"}});
}
