#include "../FileSystems.h"

namespace tessel::test {

const wchar_t* getStrangeNativeName() {
    // "?" is in no name here.
    return L"a#b;c";
}

} // namespace tessel::test
