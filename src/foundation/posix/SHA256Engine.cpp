#include "foundation/posix/OpenSSLCheck.h"
#include "foundation/sigil/ISHA256Engine.h"

#include <openssl/evp.h>

namespace sigil {

namespace {

struct ContextDeleter {
    void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
};

class COpenSSLSHA256Engine : public ISHA256Engine {
public:
    COpenSSLSHA256Engine() : m_context(checkOpenSSL(EVP_MD_CTX_new(), "EVP_MD_CTX_new")) {
        checkOpenSSL(EVP_DigestInit_ex2(m_context.get(), EVP_sha256(), nullptr), "EVP_DigestInit_ex2");
    }

    void update(const void* data, std::size_t size) override {
        checkOpenSSL(EVP_DigestUpdate(m_context.get(), data, size), "EVP_DigestUpdate");
    }

    void finish(unsigned char* digest) override {
        checkOpenSSL(EVP_DigestFinal_ex(m_context.get(), digest, nullptr), "EVP_DigestFinal_ex");
    }

private:
    std::unique_ptr<EVP_MD_CTX, ContextDeleter> m_context;
};

} // namespace

std::unique_ptr<ISHA256Engine> createSHA256Engine() {
    return std::make_unique<COpenSSLSHA256Engine>();
}

} // namespace sigil
