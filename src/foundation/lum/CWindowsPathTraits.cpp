#include "lum/CWindowsPathTraits.h"

namespace lum {

namespace {

bool isLetter(wchar_t c) noexcept {
    return (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z');
}

bool startsWithDrive(const String& text) noexcept {
    return isLetter(text[0]) && text[1] == L':';
}

bool startsWithServer(const String& text) noexcept {
    return CWindowsPathTraits::isSeparator(text[0]) && CWindowsPathTraits::isSeparator(text[1]);
}

/// Position of the first separator at or behind `start`, or the length of the text.
int findSeparator(const String& text, int start) noexcept {
    int i = start;
    while (i < text.getLength() && !CWindowsPathTraits::isSeparator(text[i]))
        ++i;
    return i;
}

/// "." and ".." as a server would name a device, as a share they would lead out of it.
bool canBeServerOrShare(const String& name) {
    return !name.isEmpty() && name != "." && name != "..";
}

String findServerFault(const String& text) {
    const int serverEnd = findSeparator(text, 2);
    if (!canBeServerOrShare(text.Mid(2, serverEnd - 2)))
        return "The name of a server is missing";
    const int shareEnd = findSeparator(text, serverEnd + 1);
    if (!canBeServerOrShare(text.Mid(serverEnd + 1, shareEnd - serverEnd - 1)))
        return "The name of a share is missing";
    return String();
}

} // namespace

String CWindowsPathTraits::findFault(const String& text) {
    constexpr std::wstring_view forbidden = L"<>\"|?*";
    const int start = startsWithDrive(text) ? 2 : 0;
    for (int i = start; i < text.getLength(); ++i) {
        if (text[i] < L' ')
            return "Control characters are in no path";
        if (forbidden.find(text[i]) != std::wstring_view::npos)
            return String("The character ") + text.Mid(i, 1) + " is in no path";
        if (text[i] == L':')
            return "The character : only stands behind the letter of a drive";
    }
    if (start > 0 && !isSeparator(text[start]))
        return "A separator is missing behind the letter of a drive";
    return startsWithServer(text) ? findServerFault(text) : String();
}

int CWindowsPathTraits::getRootLength(const String& text) noexcept {
    if (startsWithDrive(text))
        return isSeparator(text[2]) ? 3 : 2;
    if (!startsWithServer(text))
        return isSeparator(text[0]) ? 1 : 0;
    int end = findSeparator(text, findSeparator(text, 2) + 1);
    return end < text.getLength() ? end + 1 : text.getLength();
}

bool CWindowsPathTraits::isAbsolute(const String& text) noexcept {
    return startsWithDrive(text) ? isSeparator(text[2]) : startsWithServer(text);
}

} // namespace lum
