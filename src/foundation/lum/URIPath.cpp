#include "foundation/lum/URIPath.h"

#include "foundation/lum/PercentEncoding.h"
#include "lum/types.h"

namespace lum::uripath {

namespace {

/// How many dots the segment consists of; 0 when it is none of "." and "..".
int countDots(std::wstring_view segment) noexcept {
    int dots = 0;
    for (std::size_t i = 0; i < segment.size(); ++dots) {
        if (segment[i] == L'.')
            i += 1;
        else if (percent::isEscapeAt(segment, i) && segment[i + 1] == L'2' &&
                 hexDigitValue(segment[i + 2]) == 14)
            i += 3;
        else
            return 0;
    }
    return dots <= 2 ? dots : 0;
}

/// The segment at the start of `rest`, which is taken off together with the "/" behind it.
std::wstring_view takeSegment(std::wstring_view& rest, bool& isLast) noexcept {
    const std::size_t end = rest.find(L'/');
    const std::wstring_view segment = rest.substr(0, end);
    isLast = end == std::wstring_view::npos;
    rest.remove_prefix(isLast ? rest.size() : end + 1);
    return segment;
}

} // namespace

bool isDotSegment(const String& segment) noexcept {
    return countDots(segment.getWideString()) > 0;
}

String getFolder(const String& path) {
    return path.Left(path.ReverseFind(L'/') + 1);
}

String getLastSegment(const String& path) {
    return path.Mid(path.ReverseFind(L'/') + 1);
}

String removeDotSegments(const String& path) {
    if (path.isEmpty())
        return path;
    const bool isRooted = path[0] == L'/';
    std::wstring_view rest = path.getWideString();
    rest.remove_prefix(isRooted ? 1 : 0);

    TArray<std::wstring_view> kept;
    bool endsWithDots = false; // then the path is that of a folder and ends with "/"
    for (bool isLast = false; !isLast;) {
        const std::wstring_view segment = takeSegment(rest, isLast);
        const int dots = countDots(segment);
        endsWithDots = dots > 0;
        if (dots == 0)
            kept.push_back(segment);
        else if (dots == 2 && !kept.empty() && countDots(kept.back()) != 2)
            kept.pop_back();
        else if (dots == 2 && !isRooted)
            kept.emplace_back(L"..");
    }

    std::wstring result(isRooted ? L"/" : kept.empty() || kept.front().empty() ? L"./" : L"");
    for (const std::wstring_view& segment : kept) {
        result += segment;
        result += L'/';
    }
    if (!kept.empty() && !endsWithDots)
        result.pop_back();
    return String(std::move(result));
}

} // namespace lum::uripath
