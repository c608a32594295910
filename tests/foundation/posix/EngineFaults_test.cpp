// What happens when the system or an engine underneath fails. The functions that the library calls are
// found in this program first; each passes the call on unless a test has made it fail.

#include "../HexBytes.h"
#include "ErrorMatchers.h"
#include "brook/CZLibCompressor.h"
#include "creek/CMiniZCompressor.h"
#include "lum/CMTRand.h"
#include "lum/P.h"
#include "sigil/CCipher_AES256CBC.h"
#include "sigil/CDigestType_SHA256.h"
#include "sigil/KeyDerivation.h"

#include <gtest/gtest.h>
#include <libdeflate.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <zlib.h>

#ifdef TESSEL_HAVE_ISAL
#include <isa-l/igzip_lib.h>
#endif

#include <dlfcn.h>
#include <sys/random.h>

#include <cerrno>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <vector>

namespace {

/// What a function is to do: let so many calls pass, then fail once or, with `fails` above 1, more often.
struct Fault {
    int passes = 0;
    int fails = 0;
    int result = 0; // errno for getrandom, else what the function returns
};

std::map<std::string, Fault>& getFaults() {
    static std::map<std::string, Fault> faults;
    return faults;
}

/// The fault that this call of `name` is to meet; null for none.
const Fault* meetFault(const char* name) {
    const auto found = getFaults().find(name);
    if (found == getFaults().end())
        return nullptr;
    Fault& fault = found->second;
    if (fault.passes > 0) {
        --fault.passes;
        return nullptr;
    }
    if (fault.fails == 0)
        return nullptr;
    --fault.fails;
    return &fault;
}

template <class Function>
Function* findNext(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// The most that getrandom gives in one call, as after a signal; 0 for as much as is asked for.
std::size_t g_largestPiece = 0;

/// How many cipher contexts were made.
int g_contextCount = 0;

} // namespace

#define PASS_ON(name, ...)                                                                                   \
    static auto* const next = findNext<decltype(name)>(#name);                                               \
    return next(__VA_ARGS__)

extern "C" {

ssize_t getrandom(void* bytes, std::size_t size, unsigned int flags) {
    if (const Fault* fault = meetFault("getrandom")) {
        errno = fault->result;
        return fault->result == 0 ? 0 : -1;
    }
    if (g_largestPiece != 0)
        size = std::min(size, g_largestPiece);
    PASS_ON(getrandom, bytes, size, flags);
}

EVP_CIPHER* EVP_CIPHER_fetch(OSSL_LIB_CTX* context, const char* algorithm, const char* properties) {
    if (meetFault("EVP_CIPHER_fetch")) {
        ERR_raise(ERR_LIB_EVP, ERR_R_UNSUPPORTED);
        ERR_raise(ERR_LIB_EVP, ERR_R_INTERNAL_ERROR);
        return nullptr;
    }
    PASS_ON(EVP_CIPHER_fetch, context, algorithm, properties);
}

EVP_CIPHER_CTX* EVP_CIPHER_CTX_new() {
    ++g_contextCount;
    PASS_ON(EVP_CIPHER_CTX_new, );
}

int EVP_CipherInit_ex2(EVP_CIPHER_CTX* context, const EVP_CIPHER* cipher, const unsigned char* key,
                       const unsigned char* iv, int encrypts, const OSSL_PARAM* parameters) {
    if (const Fault* fault = meetFault("EVP_CipherInit_ex2"))
        return fault->result;
    PASS_ON(EVP_CipherInit_ex2, context, cipher, key, iv, encrypts, parameters);
}

int EVP_CipherUpdate(EVP_CIPHER_CTX* context, unsigned char* out, int* outSize, const unsigned char* in,
                     int inSize) {
    if (const Fault* fault = meetFault("EVP_CipherUpdate")) {
        *outSize = 0;
        return fault->result;
    }
    PASS_ON(EVP_CipherUpdate, context, out, outSize, in, inSize);
}

int EVP_DigestUpdate(EVP_MD_CTX* context, const void* data, std::size_t size) {
    if (const Fault* fault = meetFault("EVP_DigestUpdate"))
        return fault->result;
    PASS_ON(EVP_DigestUpdate, context, data, size);
}

int EVP_DigestFinal_ex(EVP_MD_CTX* context, unsigned char* digest, unsigned int* size) {
    if (const Fault* fault = meetFault("EVP_DigestFinal_ex"))
        return fault->result;
    PASS_ON(EVP_DigestFinal_ex, context, digest, size);
}

int PKCS5_PBKDF2_HMAC(const char* password, int passwordLength, const unsigned char* salt, int saltLength,
                      int iterations, const EVP_MD* digest, int keyLength, unsigned char* key) {
    if (const Fault* fault = meetFault("PKCS5_PBKDF2_HMAC"))
        return fault->result;
    PASS_ON(PKCS5_PBKDF2_HMAC, password, passwordLength, salt, saltLength, iterations, digest, keyLength,
            key);
}

int deflateInit_(z_streamp stream, int level, const char* version, int size) {
    if (const Fault* fault = meetFault("deflateInit_"))
        return fault->result;
    PASS_ON(deflateInit_, stream, level, version, size);
}

int inflateInit_(z_streamp stream, const char* version, int size) {
    if (const Fault* fault = meetFault("inflateInit_"))
        return fault->result;
    PASS_ON(inflateInit_, stream, version, size);
}

int deflate(z_streamp stream, int flush) {
    if (const Fault* fault = meetFault("deflate"))
        return fault->result;
    PASS_ON(deflate, stream, flush);
}

int inflate(z_streamp stream, int flush) {
    if (const Fault* fault = meetFault("inflate"))
        return fault->result;
    PASS_ON(inflate, stream, flush);
}

libdeflate_compressor* libdeflate_alloc_compressor(int level) {
    if (meetFault("libdeflate_alloc_compressor"))
        return nullptr;
    PASS_ON(libdeflate_alloc_compressor, level);
}

libdeflate_decompressor* libdeflate_alloc_decompressor() {
    if (meetFault("libdeflate_alloc_decompressor"))
        return nullptr;
    PASS_ON(libdeflate_alloc_decompressor, );
}

#ifdef TESSEL_HAVE_ISAL
int isal_deflate_stateless(isal_zstream* stream) {
    if (const Fault* fault = meetFault("isal_deflate_stateless"))
        return fault->result;
    PASS_ON(isal_deflate_stateless, stream);
}
#endif

} // extern "C"

using namespace lum;
using tessel::test::fromHex;
using tessel::test::toHex;

namespace {

using Bytes = TBuffer<unsigned char>;
using Key = TCryptBuffer<unsigned char>;

class EngineFaults : public ::testing::Test {
protected:
    void TearDown() override {
        getFaults().clear();
        g_largestPiece = 0;
    }

    static void failNext(const char* function, int result = 0) { getFaults()[function] = {0, 1, result}; }
    static void failAfter(int passes, const char* function, int result = 0) {
        getFaults()[function] = {passes, 1, result};
    }
    static bool hasFailed(const char* function) { return getFaults()[function].fails == 0; }
};

class EntropyFaults : public EngineFaults {
protected:
    CMTRand rand;
};

TEST_F(EntropyFaults, NoEntropyNoGenerator) {
    failNext("getrandom", ENOSYS);
    const auto error = tessel::test::catchError([] { CMTRand unborn; });
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->getClassName(), "CError");
    EXPECT_EQ(error->getMessage(), "The system gives no random data.");
    EXPECT_EQ(error->getProps(), CProps().add("errno", ENOSYS));
    EXPECT_FALSE(error->getSecondText().isEmpty());
}

TEST_F(EntropyFaults, GivingNothingIsAFailureToo) {
    failNext("getrandom", 0);
    EXPECT_LUM_ERROR_WITH_SECOND_TEXT(CMTRand unborn, CError, -1, "The system gives no random data.",
                                      "Success", {{"errno", "0"}});
}

TEST_F(EntropyFaults, GoesOnAfterSignals) {
    getFaults()["getrandom"] = {0, 3, EINTR};
    CMTRand other;
    EXPECT_TRUE(hasFailed("getrandom"));
    EXPECT_NE(other.rand32(), rand.rand32());
}

TEST_F(EntropyFaults, PutsPiecesTogether) {
    g_largestPiece = 100;
    CMTRand pieced;
    // Every word of the state must have come: none may be left as it was.
    int zeros = 0;
    for (int i = 0; i < 624; ++i)
        zeros += pieced.rand32() == 0 ? 1 : 0;
    EXPECT_EQ(zeros, 0);

    // The last word given out comes from the end of the entropy as well.
    g_largestPiece = 0;
    unsigned char bytes[16] = {};
    pieced.randData(bytes, 16);
    EXPECT_NE(toHex(bytes, 16), "00000000000000000000000000000000");
}

TEST_F(EntropyFaults, DataAreUnchangedWhenEntropyIsMissing) {
    unsigned char bytes[4] = {1, 2, 3, 4};
    failNext("getrandom", EIO);
    EXPECT_THROW(rand.randData(bytes, 4), CError);
    EXPECT_EQ(toHex(bytes, 4), "01020304");

    rand.randData(bytes, 4);
    EXPECT_NE(toHex(bytes, 4), "01020304");
}

TEST_F(EntropyFaults, LongDataAreUnchangedWhenEntropyRunsOutOnTheWay) {
    Bytes bytes(10000);
    bytes.fill(0xee);
    const Bytes before = bytes;
    failAfter(2, "getrandom", EIO);
    EXPECT_THROW(rand.randData(bytes.getData(), 10000), CError);
    EXPECT_TRUE(hasFailed("getrandom"));
    EXPECT_EQ(bytes, before);
}

TEST_F(EntropyFaults, WordsBehindDataNeedEntropy) {
    unsigned char bytes[4];
    rand.randData(bytes, 4);
    failNext("getrandom", EIO);
    EXPECT_THROW(rand.rand32(), CError);
    EXPECT_NO_THROW(rand.rand32());
    failNext("getrandom", EIO);
    EXPECT_NO_THROW(rand.rand32()) << "the state is fresh by now";
}

class CipherFaults : public EngineFaults {
protected:
    const P<sigil::CCipher_AES256CBC> cipher{new sigil::CCipher_AES256CBC};
    const Key key{32};
    const Bytes iv{16};
    const Bytes plain = fromHex("000102030405060708090a0b0c0d0e0f10111213");
};

TEST_F(CipherFaults, ContextsOfACipherServeAllItsMessages) {
    const int before = g_contextCount;
    const P<sigil::CCipher_AES256CBC> another(new sigil::CCipher_AES256CBC);
    EXPECT_EQ(g_contextCount, before + 2) << "one for each direction";
    Bytes encrypted;
    Bytes decrypted;
    for (int i = 0; i < 10; ++i) {
        encrypted.setUsed(0);
        decrypted.setUsed(0);
        another->encrypt(plain.getData(), 16, key, iv, encrypted, false);
        another->decrypt(encrypted.getData(), 16, key, iv, decrypted, false);
    }
    EXPECT_EQ(g_contextCount, before + 2);
}

TEST_F(CipherFaults, NoEngineNoCipher) {
    failNext("EVP_CIPHER_fetch");
    const auto error = tessel::test::catchError([] { sigil::CCipher_AES256CBC unborn; });
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->getClassName(), "CError");
    EXPECT_EQ(error->getMessage(), "The cryptographic engine failed.");
    EXPECT_EQ(error->getProps(), CProps().add("function", "EVP_CIPHER_fetch"));
    EXPECT_TRUE(error->getSecondText().Contains("unsupported")) << error->getSecondText().toUTF8Lossy();
    EXPECT_TRUE(error->getSecondText().Contains("; ")) << "both reasons";
    EXPECT_EQ(ERR_peek_error(), 0u) << "the engine's own list of errors is left clean";

    failAfter(1, "EVP_CipherInit_ex2");
    EXPECT_LUM_ERROR(sigil::CCipher_AES256CBC unborn, CError, -1, "The cryptographic engine failed.",
                     {{"function", "EVP_CipherInit_ex2"}});
}

TEST_F(CipherFaults, LeaveTheOutputAsItWas) {
    const struct {
        const char* function;
        int passes;
        int result;
    } rows[] = {
        {"EVP_CipherInit_ex2", 0, 0},
        {"EVP_CipherUpdate", 0, 0},
        {"EVP_CipherUpdate", 0, 1}, // claims success without giving anything
        {"EVP_CipherUpdate", 1, 0}, // in the block that is filled up
    };
    for (const auto& row : rows) {
        Bytes out = fromHex("aabb");
        failAfter(row.passes, row.function, row.result);
        EXPECT_LUM_ERROR(cipher->encrypt(plain.getData(), 20, key, iv, out, true), CError, -1,
                         "The cryptographic engine failed.", {{"function", row.function}});
        EXPECT_TRUE(hasFailed(row.function));
        EXPECT_EQ(out, fromHex("aabb"));
        out.setUsed(34);
        EXPECT_EQ(Bytes(out.getData() + 2, 32), Bytes(32)) << "nothing of the attempt is left";
    }
}

TEST_F(CipherFaults, LeaveADecryptedKeyAsItWas) {
    Key secret(3);
    Bytes out = fromHex("aabb");
    for (const char* function : {"EVP_CipherInit_ex2", "EVP_CipherUpdate"}) {
        failNext(function);
        EXPECT_THROW(cipher->decrypt(plain.getData(), 16, key, iv, secret, false), CError);
        failNext(function);
        EXPECT_THROW(cipher->decrypt(plain.getData(), 16, key, iv, out, false), CError);
    }
    EXPECT_EQ(secret.getUsed(), 3);
    EXPECT_EQ(out, fromHex("aabb"));
}

TEST_F(CipherFaults, SpoilNothingForTheNextCall) {
    Bytes expected;
    cipher->encrypt(plain.getData(), 16, key, iv, expected, false);

    Bytes out;
    failNext("EVP_CipherUpdate");
    EXPECT_THROW(cipher->encrypt(plain.getData(), 16, key, iv, out, false), CError);
    cipher->encrypt(plain.getData(), 16, key, iv, out, false);
    EXPECT_EQ(out, expected);
}

TEST_F(EngineFaults, OfTheDigestAreErrors) {
    const P<sigil::IDigest> digest = sigil::CDigestType_SHA256().createDigest();
    failNext("EVP_DigestUpdate");
    EXPECT_LUM_ERROR(digest->update("abc", 3), CError, -1, "The cryptographic engine failed.",
                     {{"function", "EVP_DigestUpdate"}});
    failNext("EVP_DigestFinal_ex");
    EXPECT_LUM_ERROR(digest->finish(), CError, -1, "The cryptographic engine failed.",
                     {{"function", "EVP_DigestFinal_ex"}});
    EXPECT_LUM_ERROR(digest->getBytes(), CError, -1,
                     "Internal error: result taken from a digest that is not finished.");
}

TEST_F(EngineFaults, OfTheKeyDerivationAreErrors) {
    unsigned char key[16];
    failNext("PKCS5_PBKDF2_HMAC");
    EXPECT_LUM_ERROR(sigil::deriveKey_PKCS5_PBKDF2_HMAC_SHA1("a", 1, "b", 1, 1, 16, key), CError, -1,
                     "The cryptographic engine failed.", {{"function", "PKCS5_PBKDF2_HMAC"}});
}

TEST_F(EngineFaults, OfZLibsBeginning) {
    failNext("deflateInit_", Z_MEM_ERROR);
    EXPECT_THROW(brook::CZLibCompressor unborn(1), std::bad_alloc);
    failNext("inflateInit_", Z_MEM_ERROR);
    EXPECT_THROW(brook::CZLibCompressor unborn(1), std::bad_alloc);
    failNext("deflateInit_", Z_VERSION_ERROR);
    EXPECT_LUM_ERROR(brook::CZLibCompressor unborn(1), CError, -1, "zlib failed.",
                     {{"function", "deflateInit"}, {"result", "-6"}});
}

TEST_F(EngineFaults, OfZLibsWork) {
    brook::CZLibCompressor compressor(1);
    unsigned char stream[100];
    unsigned char bytes[100];

    failNext("deflate", Z_STREAM_ERROR);
    EXPECT_LUM_ERROR(compressor.compressSingleStep("abc", 3, stream, 100), CError, -1, "zlib failed.",
                     {{"function", "deflate"}, {"result", "-2"}});
    const int size = compressor.compressSingleStep("abc", 3, stream, 100);
    ASSERT_GT(size, 0);

    failNext("inflate", Z_STREAM_ERROR);
    EXPECT_LUM_ERROR(compressor.decompressSingleStep(stream, size, bytes, 100), CError, -1, "zlib failed.",
                     {{"function", "inflate"}, {"result", "-2"}});
    failNext("inflate", Z_MEM_ERROR);
    EXPECT_THROW(compressor.decompressSingleStep(stream, size, bytes, 100), std::bad_alloc);
    ASSERT_EQ(compressor.decompressSingleStep(stream, size, bytes, 100), 3);
    EXPECT_EQ(toHex(bytes, 3), "616263");
}

TEST_F(EngineFaults, OfLibDeflatesBeginning) {
    failNext("libdeflate_alloc_compressor");
    EXPECT_THROW(creek::CMiniZCompressor unborn(6), std::bad_alloc);
    failNext("libdeflate_alloc_decompressor");
    EXPECT_THROW(creek::CMiniZCompressor unborn(6), std::bad_alloc);
}

#ifdef TESSEL_HAVE_ISAL
TEST_F(EngineFaults, OfISAL) {
    creek::CMiniZCompressor compressor(1);
    unsigned char stream[100];
    failNext("isal_deflate_stateless", ISAL_INVALID_STATE);
    EXPECT_LUM_ERROR(compressor.compressSingleStep("abc", 3, stream, 100), CError, -1, "ISA-L failed.",
                     {{"result", "-3"}});
    EXPECT_GT(compressor.compressSingleStep("abc", 3, stream, 100), 0);
}
#endif

} // namespace
