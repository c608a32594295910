#include "foundation/windows/SystemPath.h"

#include "lum/CURI.h"
#include "lum/CWindowsPathTraits.h"

#include <string_view>

namespace lum {

namespace {

constexpr std::wstring_view anyPath = LR"(\\?\)";
constexpr std::wstring_view serverPath = LR"(\\?\UNC\)";

} // namespace

std::wstring toSystemPath(const String& path) {
    const std::wstring absolute = uriToNativePath(nativePathToURI(path).toNormalized()).getWideString();
    if (absolute.empty())
        return absolute;
    if (absolute.starts_with(LR"(\\)"))
        return std::wstring(serverPath) + absolute.substr(2);
    return std::wstring(anyPath) + absolute;
}

String fromSystemPath(const std::wstring& path) {
    if (path.starts_with(serverPath))
        return String(LR"(\\)" + path.substr(serverPath.size()));
    // What has neither server nor drive (a volume by its number) has no shorter form.
    const String rest(path.substr(path.starts_with(anyPath) ? anyPath.size() : 0));
    return CWindowsPathTraits::isAbsolute(rest) ? rest : String(path);
}

} // namespace lum
