#include "../FileSystems.h"

namespace tessel::test {

const wchar_t* getStrangeNativeName() {
    return L"a#b?c";
}

} // namespace tessel::test
