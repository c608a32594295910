#include "foundation/sigil/ISHA256Engine.h"
#include "foundation/windows/CNG.h"

#include <algorithm>

namespace sigil {

namespace {

/// What one call takes: its sizes have 32 bits.
constexpr std::size_t updateLimit = std::size_t(1) << 30;

class CCNGSHA256Engine : public ISHA256Engine {
public:
    CCNGSHA256Engine() : m_algorithm(openCNGAlgorithm(BCRYPT_SHA256_ALGORITHM)) {
        BCRYPT_HASH_HANDLE hash = nullptr;
        checkCNG(::BCryptCreateHash(m_algorithm.get(), &hash, nullptr, 0, nullptr, 0, 0), "BCryptCreateHash");
        m_hash.reset(hash);
    }

    void update(const void* data, std::size_t size) override {
        const auto* bytes = static_cast<const unsigned char*>(data);
        while (size > 0) {
            const std::size_t part = std::min(size, updateLimit);
            checkCNG(::BCryptHashData(m_hash.get(), const_cast<PUCHAR>(bytes), static_cast<ULONG>(part), 0),
                     "BCryptHashData");
            bytes += part;
            size -= part;
        }
    }

    void finish(unsigned char* digest) override {
        checkCNG(::BCryptFinishHash(m_hash.get(), digest, digestSize, 0), "BCryptFinishHash");
    }

private:
    CNGAlgorithm m_algorithm;
    CNGHash m_hash; // goes before its algorithm
};

} // namespace

std::unique_ptr<ISHA256Engine> createSHA256Engine() {
    return std::make_unique<CCNGSHA256Engine>();
}

} // namespace sigil
