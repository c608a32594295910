#pragma once

#include <windows.h>

#include <filesystem>
#include <string>
#include <string_view>

// What the Windows sources of platform.h share.

namespace tessel::cli::windows {

/// UTF-16 as UTF-8. Half of a surrogate pair, which names of files may hold, becomes the three bytes that
/// UTF-8 would have for it, and which are no UTF-8.
std::string toUTF8(std::wstring_view text);
/// Throws: CFailure when it is no UTF-8.
std::wstring toUTF16(const std::string& text);

/// The path as calls of the system take it, however long it is.
std::wstring toLongPath(const std::filesystem::path& path);

/// What the system says of an error, which is one of GetLastError().
std::string describe(DWORD error);

/// Set when the user wants no more; never reset.
HANDLE getInterruptEvent() noexcept;
/// The work is over as if the user had ended it, and the program will end with this code.
void noteInterrupt(DWORD exitCode) noexcept;
/// Consoles as the program found them.
void restoreConsoles() noexcept;

} // namespace tessel::cli::windows
