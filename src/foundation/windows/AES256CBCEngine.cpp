#include "foundation/sigil/IAES256CBCEngine.h"
#include "foundation/windows/CNG.h"

#include <algorithm>
#include <array>

namespace sigil {

namespace {

/// STATUS_UNSUCCESSFUL, which only the headers of drivers name.
constexpr NTSTATUS unsuccessful = static_cast<NTSTATUS>(0xC0000001);

class CCNGAES256CBCEngine : public IAES256CBCEngine {
public:
    CCNGAES256CBCEngine() : m_algorithm(openCNGAlgorithm(BCRYPT_AES_ALGORITHM)) {
        std::array<wchar_t, 32> mode{};
        std::copy_n(BCRYPT_CHAIN_MODE_CBC, sizeof(BCRYPT_CHAIN_MODE_CBC) / sizeof(wchar_t), mode.data());
        checkCNG(::BCryptSetProperty(m_algorithm.get(), BCRYPT_CHAINING_MODE,
                                     reinterpret_cast<PUCHAR>(mode.data()), sizeof(BCRYPT_CHAIN_MODE_CBC), 0),
                 "BCryptSetProperty");
    }

    void start(Direction direction, const unsigned char* key, const unsigned char* iv) override {
        BCRYPT_KEY_HANDLE handle = nullptr;
        checkCNG(::BCryptGenerateSymmetricKey(m_algorithm.get(), &handle, nullptr, 0, const_cast<PUCHAR>(key),
                                              keySize, 0),
                 "BCryptGenerateSymmetricKey");
        m_key.reset(handle);
        m_direction = direction;
        std::copy_n(iv, blockSize, m_iv.begin());
    }

    void process(const unsigned char* source, int size, unsigned char* dest) override {
        // The chain is kept here: what the system leaves in its own copy of the IV is not to be relied on.
        const bool encrypts = m_direction == Direction::Encrypt;
        Block next{};
        if (!encrypts)
            std::copy_n(source + size - blockSize, blockSize, next.begin());
        Block iv = m_iv;
        ULONG produced = 0;
        const auto call = encrypts ? &::BCryptEncrypt : &::BCryptDecrypt;
        const char* const function = encrypts ? "BCryptEncrypt" : "BCryptDecrypt";
        checkCNG(call(m_key.get(), const_cast<PUCHAR>(source), static_cast<ULONG>(size), nullptr, iv.data(),
                      static_cast<ULONG>(iv.size()), dest, static_cast<ULONG>(size), &produced, 0),
                 function);
        checkCNG(produced == static_cast<ULONG>(size) ? 0 : unsuccessful, function);
        if (encrypts)
            std::copy_n(dest + size - blockSize, blockSize, next.begin());
        m_iv = next;
    }

private:
    using Block = std::array<unsigned char, blockSize>;

    CNGAlgorithm m_algorithm;
    CNGKey m_key;
    Direction m_direction = Direction::Encrypt;
    Block m_iv{};
};

} // namespace

std::unique_ptr<IAES256CBCEngine> createAES256CBCEngine() {
    return std::make_unique<CCNGAES256CBCEngine>();
}

} // namespace sigil
