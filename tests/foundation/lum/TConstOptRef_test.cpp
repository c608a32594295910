#include "lum/TConstOptRef.h"

#include <gtest/gtest.h>

#include <string>

using lum::TConstOptRef;

namespace {

int lengthOf(TConstOptRef<std::string> text) {
    return text ? static_cast<int>(text->size()) : -1;
}

TEST(TConstOptRef, IsAbsentAtFirst) {
    EXPECT_FALSE(TConstOptRef<int>());
    EXPECT_EQ(TConstOptRef<int>().get(), nullptr);
    EXPECT_FALSE(TConstOptRef<int>(static_cast<const int*>(nullptr)));
    EXPECT_EQ(lengthOf({}), -1);
}

TEST(TConstOptRef, RefersToWhatItIsGiven) {
    const std::string text = "abc";
    const TConstOptRef<std::string> reference(text);
    EXPECT_TRUE(reference);
    EXPECT_EQ(reference.get(), &text);
    EXPECT_EQ(&*reference, &text);
    EXPECT_EQ(reference->size(), 3u);
    EXPECT_EQ(TConstOptRef<std::string>(&text).get(), &text);
    EXPECT_EQ(lengthOf(text), 3);
}

} // namespace
