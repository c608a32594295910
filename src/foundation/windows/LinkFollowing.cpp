#include "foundation/lum/NativeFiles.h"
#include "foundation/lum/StreamHelpers.h"
#include "foundation/windows/CFileHandle.h"
#include "foundation/windows/SystemErrors.h"
#include "foundation/windows/SystemPath.h"
#include "lum/CWindowsPathTraits.h"
#include "lum/LittleEndian.h"

#include <winioctl.h>

#include <array>

namespace lum {

namespace {

constexpr const char* tried = "Cannot follow links";

/// As the system itself.
constexpr int mostLinks = 63;

/// What the system takes, in characters, the terminating zero included.
constexpr DWORD longestPath = 32768;

/// Both kinds of links hold, behind an 8-byte head, the place and length in bytes of the path for the system,
/// then those of the path for people; symbolic links go on with flags of 4 bytes, then all hold the text.
String readLinkTarget(const unsigned char* data, DWORD size, DWORD& error) {
    constexpr DWORD headSize = 16;
    constexpr DWORD flagsSize = 4;
    error = ERROR_INVALID_REPARSE_DATA;
    if (size < headSize)
        return String();
    const uint32 tag = loadLittleEndian<uint32>(data);
    const bool isSymbolic = tag == IO_REPARSE_TAG_SYMLINK;
    if (!isSymbolic && tag != IO_REPARSE_TAG_MOUNT_POINT) {
        error = ERROR_FILE_NOT_FOUND; // no link; what it is to others leads nowhere
        return String();
    }
    const DWORD textPosition = headSize + (isSymbolic ? flagsSize : 0);
    const DWORD namePosition = textPosition + loadLittleEndian<uint16>(data + 8);
    const DWORD nameSize = loadLittleEndian<uint16>(data + 10);
    if (namePosition + nameSize > size)
        return String();
    std::wstring target;
    for (DWORD i = 0; i + 1 < nameSize; i += 2)
        target += static_cast<wchar_t>(loadLittleEndian<uint16>(data + namePosition + i));
    if (target.starts_with(LR"(\??\)"))
        target[1] = L'\\';
    error = target.empty() ? DWORD(ERROR_INVALID_REPARSE_DATA) : DWORD(ERROR_SUCCESS);
    return fromSystemPath(target);
}

/// What the link `path` names, as it stands in it; empty, with the reason in `error`, when it is no link.
String readLink(const std::wstring& path, DWORD& error) {
    const CFileHandle link = openExisting(path.c_str(), FILE_READ_ATTRIBUTES,
                                          FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT);
    std::array<unsigned char, MAXIMUM_REPARSE_DATA_BUFFER_SIZE> data{};
    DWORD size = 0;
    if (link.isOpen() && ::DeviceIoControl(link.get(), FSCTL_GET_REPARSE_POINT, nullptr, 0, data.data(),
                                           static_cast<DWORD>(data.size()), &size, nullptr))
        return readLinkTarget(data.data(), size, error);
    error = ::GetLastError();
    return String();
}

bool isLink(const std::wstring& path) noexcept {
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

/// The path of something that is there, all links followed; empty, with the reason in `error`, when it cannot
/// be told.
std::wstring findRealPath(const std::wstring& path, DWORD& error) {
    const CFileHandle file = openExisting(path.c_str(), FILE_READ_ATTRIBUTES, FILE_FLAG_BACKUP_SEMANTICS);
    std::wstring result(longestPath, L'\0');
    const DWORD length = file.isOpen() ? ::GetFinalPathNameByHandleW(file.get(), result.data(), longestPath,
                                                                     FILE_NAME_NORMALIZED | VOLUME_NAME_DOS)
                                       : 0;
    if (length == 0 || length >= longestPath) {
        error = length == 0 ? ::GetLastError() : DWORD(ERROR_FILENAME_EXCED_RANGE);
        return std::wstring();
    }
    result.resize(length);
    return result;
}

/// The folder of what `path` names, without a separator behind it but for a root's; and where the name
/// begins.
std::size_t findName(const std::wstring& path) {
    const String native = fromSystemPath(path);
    const auto rootLength = static_cast<std::size_t>(CWindowsPathTraits::getRootLength(native)) +
                            (path.size() - static_cast<std::size_t>(native.getLength()));
    const std::size_t end = path.find_last_not_of(L'\\');
    const std::size_t separator = end == std::wstring::npos ? end : path.find_last_of(L'\\', end);
    if (separator == std::wstring::npos || separator + 1 < rootLength || end < rootLength)
        return 0;
    return separator + 1;
}

/// `path` as toSystemPath gives it.
String follow(const std::wstring& path, int links, const CURI& uri) {
    DWORD error = ERROR_SUCCESS;
    const std::wstring real = findRealPath(path, error);
    if (!real.empty())
        return fromSystemPath(real);
    if (!leadsNowhere(error) && error != ERROR_CANT_ACCESS_FILE)
        throw makeFileSystemError(tried, error, makeStreamProps(uri));

    // What is missing holds no links, but the folder that it would be in may. A link that leads to nothing
    // yet must be followed too: creating the file would create what it names.
    const std::size_t name = findName(path);
    if (name == 0)
        return fromSystemPath(path);
    if (isLink(path)) {
        if (links == mostLinks)
            throw makeFileSystemError(tried, ERROR_CANT_RESOLVE_FILENAME, makeStreamProps(uri));
        const String target = readLink(path, error);
        if (!target.isEmpty()) {
            const CURI folder = nativePathToURI(fromSystemPath(path.substr(0, name)));
            const CURI place = folder << CURI(CWindowsPath(target), false);
            return follow(toSystemPath(uriToNativePath(place)), links + 1, uri);
        }
        if (!leadsNowhere(error))
            throw makeFileSystemError(tried, error, makeStreamProps(uri));
    }
    String folder = follow(path.substr(0, name), links, uri);
    if (!folder.EndsWith("\\"))
        folder += L'\\';
    return folder + String(path.substr(name));
}

} // namespace

String followNativeLinks(const String& path, const CURI& uri) {
    return follow(toSystemPath(path), 0, uri);
}

} // namespace lum
