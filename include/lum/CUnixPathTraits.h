#pragma once

#include "lum/String.h"

namespace lum {

/// Unix paths: "/" separates and is the root; a name may hold any other character but NUL.
struct TESSEL_EXPORT CUnixPathTraits {
    /// What stands between two names.
    static constexpr wchar_t separator = L'/';
    /// True for "/".
    static bool isSeparator(wchar_t c) noexcept { return c == L'/'; }
    /// The reason why `text` is no path; empty when it is one.
    static String findFault(const String& text);
    /// 1 when `text` begins with "/", else 0.
    static int getRootLength(const String& text) noexcept;
    /// True when `text` begins with the root.
    static bool isAbsolute(const String& text) noexcept { return getRootLength(text) > 0; }
};

} // namespace lum
