// The program's own definitions of these functions come before the shared library's, also for the library
// itself, where symbols are looked up by name at run time as ELF systems do.

#include "CScriptedRandomNumbers.h"

#include "lum/CBase.h"
#include "lum/CMTRand.h"
#include "lum/IMutex.h"
#include "lum/P.h"

#include <dlfcn.h>

#include <deque>
#include <stdexcept>
#include <string>

using namespace lum;

namespace {

std::deque<uint32> script;

int draws = 0;
int drawsWithoutLock = 0;
int locks = 0;
bool isLocked = false;

void noteDraw() {
    ++draws;
    drawsWithoutLock += isLocked ? 0 : 1;
}

/// The library's own function.
template <class Function>
Function realOf(const char* symbol) {
    const auto function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, symbol));
    if (!function)
        throw std::runtime_error(std::string("This function of the library is not to be found: ") + symbol);
    return function;
}

class CWatchedMutex : public CBase, public IMutex {
public:
    explicit CWatchedMutex(IMutex* real) : m_real(real) {}

    void lock() override {
        m_real->lock();
        ++locks;
        isLocked = true;
    }
    void unlock() noexcept override {
        isLocked = false;
        m_real->unlock();
    }

private:
    IMutex* m_real;
};

} // namespace

uint32 CMTRand::rand32() {
    noteDraw();
    if (!script.empty()) {
        const uint32 number = script.front();
        script.pop_front();
        return number;
    }
    static const auto real = realOf<uint32 (*)(CMTRand*)>("_ZN3lum7CMTRand6rand32Ev");
    return real(this);
}

void CMTRand::randData(void* bytes, int n) {
    noteDraw();
    static const auto real = realOf<void (*)(CMTRand*, void*, int)>("_ZN3lum7CMTRand8randDataEPvi");
    real(this, bytes, n);
}

IMutex* CMTRand::getGlobalInstanceMutex() {
    static const auto real = realOf<IMutex* (*)()>("_ZN3lum7CMTRand22getGlobalInstanceMutexEv");
    static const P<CWatchedMutex> watched(new CWatchedMutex(real()));
    return watched.get();
}

namespace tessel::test {

CScriptedRandomNumbers::CScriptedRandomNumbers(std::initializer_list<uint32> numbers) {
    script.assign(numbers);
}

CScriptedRandomNumbers::~CScriptedRandomNumbers() {
    script.clear();
}

int CScriptedRandomNumbers::getLeft() const {
    return static_cast<int>(script.size());
}

CRandomDraws::CRandomDraws() {
    draws = 0;
    drawsWithoutLock = 0;
    locks = 0;
}

int CRandomDraws::getCount() const {
    return draws;
}

int CRandomDraws::getCountWithoutLock() const {
    return drawsWithoutLock;
}

int CRandomDraws::getLocks() const {
    return locks;
}

} // namespace tessel::test
