// The program's own definition of rand32() comes before the shared library's, also for the library itself,
// where symbols are looked up by name at run time as ELF systems do.

#include "CScriptedRandomNumbers.h"

#include "lum/CMTRand.h"

#include <dlfcn.h>

#include <deque>
#include <stdexcept>

using namespace lum;

namespace {

std::deque<uint32> script;

} // namespace

uint32 CMTRand::rand32() {
    if (!script.empty()) {
        const uint32 number = script.front();
        script.pop_front();
        return number;
    }
    using Function = uint32 (*)(CMTRand*);
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "_ZN3lum7CMTRand6rand32Ev"));
    if (!real)
        throw std::runtime_error("The library's own CMTRand::rand32() is not to be found.");
    return real(this);
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

} // namespace tessel::test
