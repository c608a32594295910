#pragma once

#include "lum/CBase.h"
#include "lum/IMutex.h"
#include "lum/types.h"

#include <random>

namespace lum {

/// Mersenne Twister (MT19937). Its whole state, 624 words, comes from the operating system's entropy,
/// at construction, again before each randData, and again before the first rand32 behind one: no
/// bytes that it gave out tell of others.
class TESSEL_EXPORT CMTRand : public CBase {
public:
    /// Throws: CError when the system has no entropy to give.
    CMTRand();

    /// 32 random bits. Not for secrets: whoever sees enough of them in a row can tell the next.
    /// Throws: CError when a fresh state is due and the system has no entropy to give.
    uint32 rand32();
    /// Fills `bytes` with n random bytes from a fresh state. Good for keys, salts and IVs.
    /// Throws: CError when n is negative or the system has no entropy to give; `bytes` is then
    /// unchanged.
    void randData(void* bytes, int n);

    /// The generator of the process. Touched only while getGlobalInstanceMutex() is held.
    static CMTRand* getGlobal();
    /// The lock of getGlobal(). Lives as long as the process.
    static IMutex* getGlobalInstanceMutex();

private:
    void reseed();

    std::mt19937 m_twister;
    bool m_gaveData = false; // the state is one that randData drew from
};

} // namespace lum
