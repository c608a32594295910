#include "lum/TConstBufferSlice.h"

#include <gtest/gtest.h>

using namespace lum;

namespace {

const unsigned char bytes[] = {10, 11, 12, 13, 14};

TEST(TConstBufferSlice, ShowsAPart) {
    const TBuffer<unsigned char> buffer(bytes, 5);
    const TConstBufferSlice<unsigned char> slice(buffer, 1, 3);
    EXPECT_EQ(slice.getData(), buffer.getData() + 1);
    EXPECT_EQ(slice.getLength(), 3);
    EXPECT_EQ(slice.getData()[2], 13);
}

TEST(TConstBufferSlice, ShowsTheUsedPartAsAWhole) {
    TBuffer<unsigned char> buffer(bytes, 5);
    buffer.setUsed(4);
    const TConstBufferSlice<unsigned char> slice(buffer);
    EXPECT_EQ(slice.getData(), buffer.getData());
    EXPECT_EQ(slice.getLength(), 4);
}

TEST(TConstBufferSlice, MayBeEmpty) {
    const TBuffer<unsigned char> nothing;
    EXPECT_EQ(TConstBufferSlice<unsigned char>(nothing).getLength(), 0);
    const TBuffer<unsigned char> buffer(bytes, 5);
    EXPECT_EQ(TConstBufferSlice<unsigned char>(buffer, 5, 0).getLength(), 0);
}

} // namespace
