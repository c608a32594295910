#include "foundation/posix/OpenSSLCheck.h"
#include "foundation/sigil/IAES256CBCEngine.h"

#include <openssl/evp.h>

namespace sigil {

namespace {

struct CipherDeleter {
    void operator()(EVP_CIPHER* cipher) const noexcept { EVP_CIPHER_free(cipher); }
};
struct ContextDeleter {
    void operator()(EVP_CIPHER_CTX* context) const noexcept { EVP_CIPHER_CTX_free(context); }
};
using Cipher = std::unique_ptr<EVP_CIPHER, CipherDeleter>;
using Context = std::unique_ptr<EVP_CIPHER_CTX, ContextDeleter>;

/// A context for each direction, set up once: a message then costs no look-up, only its key and IV.
/// OpenSSL wipes the key schedules when it frees the contexts.
class COpenSSLAES256CBCEngine : public IAES256CBCEngine {
public:
    COpenSSLAES256CBCEngine()
        : m_cipher(checkOpenSSL(EVP_CIPHER_fetch(nullptr, "AES-256-CBC", nullptr), "EVP_CIPHER_fetch")),
          m_encryption(createContext(1)),
          m_decryption(createContext(0)) {}

    void start(Direction direction, const unsigned char* key, const unsigned char* iv) override {
        m_current = (direction == Direction::Encrypt ? m_encryption : m_decryption).get();
        checkOpenSSL(EVP_CipherInit_ex2(m_current, nullptr, key, iv, -1, nullptr), "EVP_CipherInit_ex2");
    }

    void process(const unsigned char* source, int size, unsigned char* dest) override {
        int produced = 0;
        checkOpenSSL(EVP_CipherUpdate(m_current, dest, &produced, source, size), "EVP_CipherUpdate");
        checkOpenSSL(static_cast<int>(produced == size), "EVP_CipherUpdate");
    }

private:
    Context createContext(int encrypts) const {
        Context context(checkOpenSSL(EVP_CIPHER_CTX_new(), "EVP_CIPHER_CTX_new"));
        checkOpenSSL(EVP_CipherInit_ex2(context.get(), m_cipher.get(), nullptr, nullptr, encrypts, nullptr),
                     "EVP_CipherInit_ex2");
        checkOpenSSL(EVP_CIPHER_CTX_set_padding(context.get(), 0), "EVP_CIPHER_CTX_set_padding");
        return context;
    }

    Cipher m_cipher;
    Context m_encryption;
    Context m_decryption;
    EVP_CIPHER_CTX* m_current = nullptr;
};

} // namespace

std::unique_ptr<IAES256CBCEngine> createAES256CBCEngine() {
    return std::make_unique<COpenSSLAES256CBCEngine>();
}

} // namespace sigil
