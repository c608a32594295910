#include "lum/CMTRand.h"

#include "foundation/lum/Entropy.h"
#include "lum/CInvalidArgError.h"
#include "lum/CMutex.h"
#include "lum/LittleEndian.h"
#include "lum/Numbers.h"
#include "lum/P.h"
#include "lum/TBuffer.h"

#include <algorithm>
#include <array>

namespace lum {

namespace {

/// A seed sequence as the standard's engines take it, but without any mixing: what the engine asks
/// for, its whole state, is the system's entropy as it stands.
class CEntropySequence {
public:
    using result_type = std::uint_least32_t;

    CEntropySequence() { getSystemEntropy(m_words.data(), static_cast<int>(sizeof(m_words))); }
    ~CEntropySequence() { wipeMemory(m_words.data(), sizeof(m_words)); }
    CEntropySequence(const CEntropySequence&) = delete;
    CEntropySequence& operator=(const CEntropySequence&) = delete;

    /// Requires: no more than the 624 words that there are.
    template <class Iterator>
    void generate(Iterator begin, Iterator end) const {
        std::copy_n(m_words.begin(), end - begin, begin);
    }

private:
    std::array<result_type, std::mt19937::state_size> m_words;
};

/// How much one state gives for randData. The twister has 31 bits less than its 624 words: the last
/// word of the first round could be told from the others.
constexpr int bytesPerState = (std::mt19937::state_size - 1) * 4;

} // namespace

CMTRand::CMTRand() { // NOLINT(cert-msc51-cpp): the state that the twister begins with is replaced at once
    reseed();
}

void CMTRand::reseed() {
    CEntropySequence entropy;
    m_twister.seed(entropy);
    m_gaveData = false;
}

uint32 CMTRand::rand32() {
    if (m_gaveData)
        reseed();
    return static_cast<uint32>(m_twister());
}

void CMTRand::randData(void* bytes, int n) {
    if (n < 0)
        throw CInvalidArgError("CMTRand::randData", "n must not be negative.", CProps().add("n", n));

    // Drawn aside first: entropy may run out between two states.
    TCryptBuffer<unsigned char> drawn(roundUp(n, 4));
    int64 done = 0;
    do {
        reseed();
        m_gaveData = true;
        for (const int64 end = std::min(drawn.getUsed(), done + bytesPerState); done < end; done += 4)
            storeLittleEndian(drawn.getData() + done, static_cast<uint32>(m_twister()));
    } while (done < drawn.getUsed());
    std::copy_n(drawn.getData(), n, static_cast<unsigned char*>(bytes));
}

CMTRand* CMTRand::getGlobal() {
    // Held for good: destructors of other static objects may still draw.
    static const auto* const global = new P<CMTRand>(new CMTRand);
    return global->get();
}

IMutex* CMTRand::getGlobalInstanceMutex() {
    static const auto* const mutex = new P<CMutex>(new CMutex);
    return mutex->get();
}

} // namespace lum
