#include "sigil/CDigestType_SHA256.h"

#include "../HexBytes.h"
#include "ErrorMatchers.h"

#include <gtest/gtest.h>

#include <string>

using namespace lum;
using sigil::CDigestType_SHA256;
using sigil::IDigest;
using tessel::test::toHex;

namespace {

// FIPS 180-4's examples, and the digest of nothing.
const String digestOfNothing = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
const String digestOfABC = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const String digestOfTwoBlocks = "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1";
const String digestOfAMillionAs = "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0";

class CDigestType_SHA256Test : public ::testing::Test {
protected:
    P<IDigest> digest = CDigestType_SHA256().createDigest();

    void feed(const std::string& text) { digest->update(text.data(), static_cast<int>(text.size())); }
    String finish() {
        digest->finish();
        return toHex(digest->getBytes(), digest->getSizeBytes());
    }
};

TEST_F(CDigestType_SHA256Test, HasThirtyTwoBytes) {
    EXPECT_EQ(digest->getSizeBytes(), 32);
}

TEST_F(CDigestType_SHA256Test, OfNothing) {
    EXPECT_EQ(finish(), digestOfNothing);
}

TEST_F(CDigestType_SHA256Test, OfOneBlock) {
    feed("abc");
    EXPECT_EQ(finish(), digestOfABC);
}

TEST_F(CDigestType_SHA256Test, OfTwoBlocks) {
    feed("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq");
    EXPECT_EQ(finish(), digestOfTwoBlocks);
}

TEST_F(CDigestType_SHA256Test, OfAMillionBytes) {
    feed(std::string(1000000, 'a'));
    EXPECT_EQ(finish(), digestOfAMillionAs);
}

TEST_F(CDigestType_SHA256Test, MayBeFedInPieces) {
    feed("a");
    feed("");
    digest->update(nullptr, 0);
    feed("bc");
    EXPECT_EQ(finish(), digestOfABC);
}

TEST_F(CDigestType_SHA256Test, DigestsAreIndependent) {
    const P<IDigest> other = CDigestType_SHA256().createDigest();
    other->update("xyz", 3);
    feed("abc");
    other->finish();
    EXPECT_EQ(finish(), digestOfABC);
}

TEST_F(CDigestType_SHA256Test, FinishingAgainDoesNothing) {
    feed("abc");
    finish();
    EXPECT_EQ(finish(), digestOfABC);
}

TEST_F(CDigestType_SHA256Test, TakesNoMoreWhenFinished) {
    feed("abc");
    finish();
    EXPECT_LUM_ERROR(feed("d"), CError, -1, "Internal error: bytes added to a digest that is finished.");
    EXPECT_EQ(finish(), digestOfABC);
}

TEST_F(CDigestType_SHA256Test, GivesNothingBeforeItIsFinished) {
    feed("abc");
    EXPECT_LUM_ERROR(digest->getBytes(), CError, -1,
                     "Internal error: result taken from a digest that is not finished.");
    EXPECT_EQ(finish(), digestOfABC);
}

TEST_F(CDigestType_SHA256Test, RefusesWrongArguments) {
    EXPECT_INVALID_ARG_ERROR(digest->update("abc", -1), "CDigest_SHA256::update",
                             "size must not be negative.", {{"size", "-1"}});
    EXPECT_INVALID_ARG_ERROR(digest->update(nullptr, 1), "CDigest_SHA256::update", "data must not be NULL.");
    feed("abc");
    EXPECT_EQ(finish(), digestOfABC);
}

} // namespace
