#include "foundation/windows/FileRemoval.h"

#include "foundation/lum/Entropy.h"
#include "foundation/lum/HexDigits.h"
#include "foundation/windows/CFileHandle.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <vector>

namespace lum {

namespace {

/// A name beside `path` that no file has.
std::wstring makeNameBeside(const std::wstring& path) {
    std::array<unsigned char, 8> random{};
    getSystemEntropy(random.data(), static_cast<int>(random.size()));
    std::wstring result = path.substr(0, path.find_last_of(L'\\') + 1) + L".deleted-";
    for (const unsigned char byte : random) {
        result += static_cast<wchar_t>(lowerHexDigits[byte >> 4]);
        result += static_cast<wchar_t>(lowerHexDigits[byte & 0xF]);
    }
    return result;
}

bool rename(HANDLE file, const std::wstring& path) {
    constexpr std::size_t namePosition = offsetof(FILE_RENAME_INFO, FileName);
    const std::size_t nameSize = path.size() * sizeof(wchar_t);
    // The name's end is counted, and marked for those who look for a mark.
    std::vector<unsigned char> memory(sizeof(FILE_RENAME_INFO) + nameSize + sizeof(wchar_t));
    auto* const information = reinterpret_cast<FILE_RENAME_INFO*>(memory.data());
    information->FileNameLength = static_cast<DWORD>(nameSize);
    std::memcpy(memory.data() + namePosition, path.data(), nameSize);
    return ::SetFileInformationByHandle(file, FileRenameInfo, information,
                                        static_cast<DWORD>(memory.size())) != 0;
}

/// FileDispositionInfoEx, which MinGW's headers keep for a version that Windows never had.
constexpr auto dispositionInfoEx = static_cast<FILE_INFO_BY_HANDLE_CLASS>(21);

/// As on other systems. Only newer Windows and its own file systems know how.
DWORD removeNameAtOnce(HANDLE file) noexcept {
    FILE_DISPOSITION_INFO_EX information = {};
    information.Flags = FILE_DISPOSITION_FLAG_DELETE | FILE_DISPOSITION_FLAG_POSIX_SEMANTICS;
    const bool succeeded =
        ::SetFileInformationByHandle(file, dispositionInfoEx, &information, sizeof(information)) != 0;
    return succeeded ? DWORD(ERROR_SUCCESS) : ::GetLastError();
}

/// True for what those say who do not know how, rather than that they may not.
bool isUnknownWay(DWORD systemError) noexcept {
    return systemError == ERROR_INVALID_FUNCTION || systemError == ERROR_INVALID_PARAMETER ||
           systemError == ERROR_NOT_SUPPORTED || systemError == ERROR_CALL_NOT_IMPLEMENTED ||
           systemError == ERROR_INVALID_LEVEL;
}

bool removeWithLastUser(HANDLE file) noexcept {
    FILE_DISPOSITION_INFO information = {};
    information.DeleteFile = TRUE;
    return ::SetFileInformationByHandle(file, FileDispositionInfo, &information, sizeof(information)) != 0;
}

} // namespace

DWORD removeFile(const std::wstring& path) {
    if (path.ends_with(L'\\')) // which a file's name does not
        return ERROR_PATH_NOT_FOUND;
    const CFileHandle file =
        openExisting(path.c_str(), DELETE | FILE_READ_ATTRIBUTES, FILE_FLAG_OPEN_REPARSE_POINT);
    if (!file.isOpen())
        return ::GetLastError();
    const DWORD atOnce = removeNameAtOnce(file.get());
    if (!isUnknownWay(atOnce))
        return atOnce;
    // Elsewhere a name is taken until the last user is gone. So the file goes under another one; where it may
    // not be renamed, that is how it is.
    const std::wstring aside = makeNameBeside(path);
    const bool renamed = rename(file.get(), aside);
    if (removeWithLastUser(file.get()))
        return ERROR_SUCCESS;
    const DWORD error = ::GetLastError();
    if (renamed)
        rename(file.get(), path);
    return error;
}

} // namespace lum
