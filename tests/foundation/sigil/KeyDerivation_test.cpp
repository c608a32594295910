#include "sigil/KeyDerivation.h"

#include "../HexBytes.h"
#include "ErrorMatchers.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace lum;
using sigil::deriveKey_PKCS5_PBKDF2_HMAC_SHA1;
using tessel::test::toHex;

namespace {

String derive(const std::string& password, const std::string& salt, int iterations, int keyLength) {
    std::vector<unsigned char> key(static_cast<std::size_t>(keyLength));
    deriveKey_PKCS5_PBKDF2_HMAC_SHA1(password.data(), static_cast<int>(password.size()), salt.data(),
                                     static_cast<int>(salt.size()), iterations, keyLength, key.data());
    return toHex(key.data(), keyLength);
}

TEST(KeyDerivation, GivesTheVectorsOfRFC6070) {
    EXPECT_EQ(derive("password", "salt", 1, 20), "0c60c80f961f0e71f3a9b524af6012062fe037a6");
    EXPECT_EQ(derive("password", "salt", 2, 20), "ea6c014dc72d6f8ccd1ed92ace1d41f0d8de8957");
    EXPECT_EQ(derive("password", "salt", 4096, 20), "4b007901b765489abead49d926f721d065a429c1");
    EXPECT_EQ(derive("passwordPASSWORDpassword", "saltSALTsaltSALTsaltSALTsaltSALTsalt", 4096, 25),
              "3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038");
    EXPECT_EQ(derive(std::string("pass\0word", 9), std::string("sa\0lt", 5), 4096, 16),
              "56fa6aa75548099dcc37d7f03425e0c3");
}

TEST(KeyDerivation, TakesEmptyPasswordAndSalt) {
    const String expected = "1e437a1c79d75be61e91141dae20affc4892cc99";
    EXPECT_EQ(derive("", "", 1, 20), expected);

    unsigned char key[20];
    deriveKey_PKCS5_PBKDF2_HMAC_SHA1(nullptr, 0, nullptr, 0, 1, 20, key);
    EXPECT_EQ(toHex(key, 20), expected);
}

TEST(KeyDerivation, ShorterKeyIsTheBeginningOfALonger) {
    EXPECT_EQ(derive("password", "salt", 2, 7), derive("password", "salt", 2, 40).Left(14));
}

TEST(KeyDerivation, MayGiveNothing) {
    unsigned char byte = 7;
    deriveKey_PKCS5_PBKDF2_HMAC_SHA1("a", 1, "b", 1, 1, 0, &byte);
    deriveKey_PKCS5_PBKDF2_HMAC_SHA1("a", 1, "b", 1, 1, 0, nullptr);
    EXPECT_EQ(byte, 7);
}

TEST(KeyDerivation, WritesNoMoreThanTheKey) {
    std::vector<unsigned char> memory(34, 0xee);
    deriveKey_PKCS5_PBKDF2_HMAC_SHA1("password", 8, "salt", 4, 1, 32, memory.data() + 1);
    EXPECT_EQ(memory.front(), 0xee);
    EXPECT_EQ(memory.back(), 0xee);
}

TEST(KeyDerivation, RefusesWrongArguments) {
    unsigned char key[4] = {1, 2, 3, 4};
    const struct {
        const char* password;
        int passwordLength;
        const char* salt;
        int saltLength;
        int iterations;
        int keyLength;
        unsigned char* key;
        const char* message;
        CProps::Entry prop;
    } rows[] = {
        {"a", -1, "b", 1, 1, 4, key, "A length must not be negative.", {"passwordLength", "-1"}},
        {"a", 1, "b", -2, 1, 4, key, "A length must not be negative.", {"saltLength", "-2"}},
        {"a", 1, "b", 1, 1, -3, key, "A length must not be negative.", {"keyLength", "-3"}},
        {nullptr, 1, "b", 1, 1, 4, key, "Bytes must not be NULL.", {"passwordLength", "1"}},
        {"a", 1, nullptr, 1, 1, 4, key, "Bytes must not be NULL.", {"saltLength", "1"}},
        {"a", 1, "b", 1, 1, 4, nullptr, "Bytes must not be NULL.", {"keyLength", "4"}},
        {"a", 1, "b", 1, 0, 4, key, "iterations must be at least 1.", {"iterations", "0"}},
        {"a", 1, "b", 1, -1, 4, key, "iterations must be at least 1.", {"iterations", "-1"}},
    };
    for (const auto& row : rows) {
        EXPECT_INVALID_ARG_ERROR(deriveKey_PKCS5_PBKDF2_HMAC_SHA1(row.password, row.passwordLength, row.salt,
                                                                  row.saltLength, row.iterations,
                                                                  row.keyLength, row.key),
                                 "deriveKey_PKCS5_PBKDF2_HMAC_SHA1", row.message, {row.prop});
    }
    EXPECT_EQ(toHex(key, 4), "01020304");
}

} // namespace
