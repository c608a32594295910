#include "sigil/CCipher_AES256CBC.h"

#include "../HexBytes.h"
#include "ErrorMatchers.h"
#include "lum/P.h"

#include <gtest/gtest.h>

using namespace lum;
using sigil::CCipher_AES256CBC;
using tessel::test::fromHex;

namespace {

using Bytes = TBuffer<unsigned char>;
using Key = TCryptBuffer<unsigned char>;

// NIST SP 800-38A, F.2.5 and F.2.6.
const char* const keyDigits = "603deb1015ca71be2b73aef0857d7781 1f352c073b6108d72d9810a30914dff4";
const char* const ivDigits = "000102030405060708090a0b0c0d0e0f";
const char* const plainDigits = "6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51"
                                "30c81c46a35ce411e5fbc1191a0a52ef f69f2445df4f9b17ad2b417be66c3710";
const char* const cipherDigits = "f58c4c04d6e5f1ba779eabfb5f7bfbd6 9cfc4e967edb808d679f777bc6702c7d"
                                 "39f23369a9d9bacfa530e26304231461 b2eb05e2c39be9fcda6c19078c6a9d1b";

class CCipher_AES256CBCTest : public ::testing::Test {
protected:
    Bytes encrypt(const Bytes& source, bool fillLastBlock = false) {
        Bytes out;
        cipher->encrypt(source.getData(), static_cast<int>(source.getUsed()), key, iv, out, fillLastBlock);
        return out;
    }
    Bytes decrypt(const Bytes& source, bool fillLastBlock = false) {
        Bytes out;
        cipher->decrypt(source.getData(), static_cast<int>(source.getUsed()), key, iv, out, fillLastBlock);
        return out;
    }
    static Key makeKey(const char* digits) {
        const Bytes bytes = fromHex(digits);
        return Key(bytes.getData(), bytes.getUsed());
    }

    const P<CCipher_AES256CBC> cipher{new CCipher_AES256CBC};
    Key key = makeKey(keyDigits);
    Bytes iv = fromHex(ivDigits);
    const Bytes plain = fromHex(plainDigits);
    const Bytes encrypted = fromHex(cipherDigits);
};

TEST_F(CCipher_AES256CBCTest, TellsItsNameAndSizes) {
    EXPECT_EQ(cipher->getID(), "aes256cbc");
    EXPECT_EQ(cipher->getKeySizeBytes(), 32);
    EXPECT_EQ(cipher->getIVSizeBytes(), 16);
    EXPECT_EQ(cipher->getBlockSizeBytes(), 16);
}

TEST_F(CCipher_AES256CBCTest, EncryptsTheStandardsExample) {
    EXPECT_EQ(encrypt(plain), encrypted);
    EXPECT_EQ(encrypt(plain, true), encrypted);
}

TEST_F(CCipher_AES256CBCTest, DecryptsTheStandardsExample) {
    EXPECT_EQ(decrypt(encrypted), plain);
    EXPECT_EQ(decrypt(encrypted, true), plain);
}

TEST_F(CCipher_AES256CBCTest, DecryptsIntoAKey) {
    Key out(fromHex("aa").getData(), 1);
    cipher->decrypt(encrypted.getData(), 64, key, iv, out, false);
    ASSERT_EQ(out.getUsed(), 65);
    EXPECT_EQ(out[0], 0xaa);
    EXPECT_EQ(Bytes(out.getData() + 1, 64), plain);
}

TEST_F(CCipher_AES256CBCTest, EachCallStartsFromItsIV) {
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(encrypt(plain), encrypted);
        EXPECT_EQ(decrypt(encrypted), plain);
    }
    const Bytes first = encrypt(plain);
    iv[0] = 0xff;
    EXPECT_NE(encrypt(plain).getData()[0], first.getData()[0]);
    iv[0] = 0;
    EXPECT_EQ(encrypt(plain), encrypted);
}

TEST_F(CCipher_AES256CBCTest, EachCallTakesItsKey) {
    const Bytes first = encrypt(plain);
    key[31] ^= 1;
    const Bytes second = encrypt(plain);
    EXPECT_FALSE(first == second);
    EXPECT_EQ(decrypt(second), plain);
    EXPECT_FALSE(decrypt(first) == plain);
    key[31] ^= 1;
    EXPECT_EQ(decrypt(first), plain);
}

TEST_F(CCipher_AES256CBCTest, AppendsToWhatIsThere) {
    Bytes out = fromHex("0102");
    cipher->encrypt(plain.getData(), 64, key, iv, out, false);
    ASSERT_EQ(out.getUsed(), 66);
    EXPECT_EQ(Bytes(out.getData(), 2), fromHex("0102"));
    EXPECT_EQ(Bytes(out.getData() + 2, 64), encrypted);

    cipher->decrypt(encrypted.getData(), 64, key, iv, out, false);
    ASSERT_EQ(out.getUsed(), 130);
    EXPECT_EQ(Bytes(out.getData() + 66, 64), plain);
}

TEST_F(CCipher_AES256CBCTest, FillsTheLastBlockWithZeros) {
    for (int size = 1; size <= 48; ++size) {
        Bytes filled(plain.getData(), size);
        filled.append(Bytes(16).getData(), (16 - size % 16) % 16);

        const Bytes out = encrypt(Bytes(plain.getData(), size), true);
        EXPECT_EQ(out, encrypt(filled)) << size;
        EXPECT_EQ(decrypt(out, true), filled) << size << ": what was filled in stays";
    }
}

TEST_F(CCipher_AES256CBCTest, StripsNothingThatLooksLikePadding) {
    Bytes padded(16);
    padded.fill(16);
    EXPECT_EQ(decrypt(encrypt(padded)), padded);
    padded[15] = 1;
    EXPECT_EQ(decrypt(encrypt(padded), true), padded);
    const Bytes any = decrypt(plain); // whatever comes out of it, no padding is asked for
    EXPECT_EQ(any.getUsed(), 64);
    EXPECT_EQ(encrypt(any), plain);
}

TEST_F(CCipher_AES256CBCTest, TakesWholeGrains) {
    Bytes grain(65536);
    for (int64 i = 0; i < grain.getUsed(); ++i)
        grain[i] = static_cast<unsigned char>(i * 7 + i / 256);
    const Bytes out = encrypt(grain);
    EXPECT_EQ(out.getUsed(), 65536);
    EXPECT_EQ(decrypt(out), grain);
}

TEST_F(CCipher_AES256CBCTest, NothingGivesNothing) {
    Bytes out = fromHex("01");
    Key secret;
    cipher->encrypt(nullptr, 0, key, iv, out, true);
    cipher->encrypt(nullptr, 0, key, iv, out, false);
    cipher->decrypt(nullptr, 0, key, iv, out, false);
    cipher->decrypt(nullptr, 0, key, iv, secret, false);
    EXPECT_EQ(out, fromHex("01"));
    EXPECT_TRUE(secret.isEmpty());
}

TEST_F(CCipher_AES256CBCTest, RefusesWrongArguments) {
    const Bytes shortIV = fromHex("00");
    const Key longKey(33);
    const Key noKey;
    const struct {
        const Key& key;
        const Bytes& iv;
        const unsigned char* source;
        int size;
        const char* message;
        CProps props;
    } rows[] = {
        {longKey, iv, plain.getData(), 16, "The key has the wrong length.", CProps().add("keyLength", 33)},
        {noKey, iv, plain.getData(), 0, "The key has the wrong length.", CProps().add("keyLength", 0)},
        {key, shortIV, plain.getData(), 16, "The IV has the wrong length.", CProps().add("ivLength", 1)},
        {key, iv, plain.getData(), -16, "size must not be negative.", CProps().add("size", -16)},
        {key, iv, nullptr, 16, "source must not be NULL.", CProps()},
    };

    Bytes out = fromHex("0102");
    Key secret(1);
    const auto expectRefusal = [&](const auto& row, const String& source, const auto& action) {
        const auto error = tessel::test::catchError(action);
        ASSERT_TRUE(error);
        const auto* invalid = dynamic_cast<const CInvalidArgError*>(error.get());
        ASSERT_TRUE(invalid);
        EXPECT_EQ(invalid->getSource(), source);
        EXPECT_EQ(invalid->getMessage(), row.message);
        EXPECT_EQ(invalid->getProps(), row.props);
        EXPECT_EQ(out, fromHex("0102"));
        EXPECT_EQ(secret.getUsed(), 1);
    };
    for (const auto& row : rows) {
        for (const bool fill : {false, true}) {
            expectRefusal(row, "CCipher_AES256CBC::encrypt",
                          [&] { cipher->encrypt(row.source, row.size, row.key, row.iv, out, fill); });
            expectRefusal(row, "CCipher_AES256CBC::decrypt",
                          [&] { cipher->decrypt(row.source, row.size, row.key, row.iv, out, fill); });
            expectRefusal(row, "CCipher_AES256CBC::decrypt",
                          [&] { cipher->decrypt(row.source, row.size, row.key, row.iv, secret, fill); });
        }
    }
    EXPECT_EQ(encrypt(plain), encrypted) << "a refusal spoils nothing";
}

TEST_F(CCipher_AES256CBCTest, RefusesAPartOfABlock) {
    Bytes out = fromHex("0102");
    Key secret;
    EXPECT_INVALID_ARG_ERROR(cipher->encrypt(plain.getData(), 17, key, iv, out, false),
                             "CCipher_AES256CBC::encrypt", "The data are not whole blocks.",
                             {{"size", "17"}});
    for (const bool fill : {false, true}) {
        EXPECT_INVALID_ARG_ERROR(cipher->decrypt(plain.getData(), 15, key, iv, out, fill),
                                 "CCipher_AES256CBC::decrypt", "The data are not whole blocks.",
                                 {{"size", "15"}});
        EXPECT_INVALID_ARG_ERROR(cipher->decrypt(plain.getData(), 15, key, iv, secret, fill),
                                 "CCipher_AES256CBC::decrypt", "The data are not whole blocks.",
                                 {{"size", "15"}});
    }
    EXPECT_EQ(out, fromHex("0102"));
    EXPECT_TRUE(secret.isEmpty());
}

} // namespace
