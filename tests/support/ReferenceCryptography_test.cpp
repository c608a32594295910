#include "ReferenceCryptography.h"

#include "lum/TextFunctions.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace tessel::test;
using reference::ByteRow;

namespace {

ByteRow hex(const char* digits) {
    lum::TBuffer<unsigned char> bytes;
    lum::hexDecode(digits, bytes);
    return ByteRow(bytes.getData(), bytes.getData() + bytes.getUsed());
}

ByteRow text(const std::string& characters) {
    return ByteRow(characters.begin(), characters.end());
}

} // namespace

// NIST SP 800-38A, F.2.5 and F.2.6.
TEST(ReferenceCryptography, AES256CBC) {
    const ByteRow key = hex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4");
    const ByteRow iv = hex("000102030405060708090a0b0c0d0e0f");
    const ByteRow plain = hex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                              "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
    const ByteRow cipher = hex("f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
                               "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b");
    EXPECT_EQ(reference::aes256CBC(true, plain, key, iv), cipher);
    EXPECT_EQ(reference::aes256CBC(false, cipher, key, iv), plain);
    EXPECT_EQ(reference::aes256CBC(false, {}, key, iv), ByteRow());
}

TEST(ReferenceCryptography, RefusesWhatMakesNoSense) {
    const ByteRow key(32);
    const ByteRow iv(16);
    EXPECT_THROW(reference::aes256CBC(true, ByteRow(15), key, iv), std::runtime_error);
    EXPECT_THROW(reference::aes256CBC(true, ByteRow(16), ByteRow(16), iv), std::runtime_error);
    EXPECT_THROW(reference::aes256CBC(true, ByteRow(16), key, ByteRow(8)), std::runtime_error);
    EXPECT_THROW(reference::pbkdf2("password", text("salt"), 0, 20), std::runtime_error);
}

// FIPS 180-2, appendix B, and a message of one whole block.
TEST(ReferenceCryptography, SHA256) {
    EXPECT_EQ(reference::sha256(text("abc")),
              hex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    EXPECT_EQ(reference::sha256(text("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")),
              hex("248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"));
    EXPECT_EQ(reference::sha256({}), hex("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));
    EXPECT_EQ(reference::sha256(ByteRow(64)),
              hex("f5a5fd42d16a20302798ef6ed309979b43003d2320d9f0e8ea9831a92759fb4b"));
}

// RFC 6070.
TEST(ReferenceCryptography, PBKDF2) {
    EXPECT_EQ(reference::pbkdf2("password", text("salt"), 1, 20),
              hex("0c60c80f961f0e71f3a9b524af6012062fe037a6"));
    EXPECT_EQ(reference::pbkdf2("password", text("salt"), 4096, 20),
              hex("4b007901b765489abead49d926f721d065a429c1"));
    EXPECT_EQ(
        reference::pbkdf2("passwordPASSWORDpassword", text("saltSALTsaltSALTsaltSALTsaltSALTsalt"), 4096, 25),
        hex("3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038"));
    EXPECT_EQ(reference::pbkdf2(std::string("pass\0word", 9), ByteRow{'s', 'a', 0, 'l', 't'}, 4096, 16),
              hex("56fa6aa75548099dcc37d7f03425e0c3"));
}
