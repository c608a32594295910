#pragma once

#include "lum/String.h"

namespace lum {

/// Windows paths: `\` and `/` both separate, `C:\` and `\\server\share` are roots. The characters
/// < > " | ? * and control characters are in no name, and ":" only stands behind a drive letter.
struct TESSEL_EXPORT CWindowsPathTraits {
    /// What stands between two names where this library writes them.
    static constexpr wchar_t separator = L'\\';
    /// True for either kind of slash.
    static bool isSeparator(wchar_t c) noexcept { return c == L'\\' || c == L'/'; }
    /// The reason why `text` is no path; empty when it is one.
    static String findFault(const String& text);
    /// Length of the root (`C:\`, `C:`, `\\server\share\`, `\`) at the start of `text`; 0 without one.
    static int getRootLength(const String& text) noexcept;
    /// True when the root fixes the place without a current folder: drive with separator, or server.
    static bool isAbsolute(const String& text) noexcept;
};

} // namespace lum
