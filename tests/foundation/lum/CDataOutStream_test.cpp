#include "lum/CDataOutStream.h"

#include "lum/CBufferStream.h"

#include <gmock/gmock.h>

#include <vector>

using namespace lum;
using ::testing::ElementsAre;

namespace {

class CDataOutStreamTest : public ::testing::Test {
protected:
    std::vector<int> bytes() const { return {m_buffer.getData(), m_buffer.getData() + m_buffer.getUsed()}; }

    TBuffer<unsigned char> m_buffer;
    P<IIOStream> m_stream{new CBufferStream(&m_buffer, 1.0)};
    CDataOutStream m_out{m_stream.get()};
};

} // namespace

TEST_F(CDataOutStreamTest, WritesLittleEndianNumbers) {
    m_out.writeUInt8(0xfe);
    m_out.writeUInt16(0x8201);
    m_out.writeUInt32(0x92345678u);
    m_out.writeUInt64(0x81234567'89abcdefu);
    EXPECT_THAT(bytes(), ElementsAre(0xfe, 0x01, 0x82, 0x78, 0x56, 0x34, 0x92, 0xef, 0xcd, 0xab, 0x89, 0x67,
                                     0x45, 0x23, 0x81));
    EXPECT_EQ(m_out.getPosition(), 15);
    EXPECT_EQ(m_out.getLength(), 15);
}

TEST_F(CDataOutStreamTest, WritesNegativeNumbersInTwosComplement) {
    m_out.writeInt64(-2);
    m_out.writeInt64(INT64_MIN);
    EXPECT_THAT(bytes(),
                ElementsAre(0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0, 0, 0, 0, 0x80));
}

TEST_F(CDataOutStreamTest, WritesBytesWhereTheStreamStands) {
    m_out.seek(2);
    m_out.write("ab", 2);
    m_stream->seek(1);
    m_out.writeUInt8(7);
    EXPECT_THAT(bytes(), ElementsAre(0, 7, 'a', 'b'));
    EXPECT_EQ(&m_out.getStream(), m_stream.get());
}
