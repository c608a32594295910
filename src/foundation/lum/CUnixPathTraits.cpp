#include "lum/CUnixPathTraits.h"

namespace lum {

String CUnixPathTraits::findFault(const String& text) {
    return text.Find(L'\0') < 0 ? "" : "The character with the code 0 is in no path";
}

int CUnixPathTraits::getRootLength(const String& text) noexcept {
    return isSeparator(text[0]) ? 1 : 0;
}

} // namespace lum
