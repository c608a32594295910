#pragma once

#include "lum/CFileSystemError.h"
#include "lum/CIOError.h"

#include <windows.h>

namespace lum {

// Errors made from values of GetLastError(). The message is what was tried, ": ", and the reason, in the
// words that other systems have for it: neither translated nor different from Windows to Windows.

/// `props` begin with "uri".
CFileSystemError makeFileSystemError(const char* tried, DWORD systemError, const CProps& props);

/// Code_NoSpace when there is no room, else `code`.
CIOError makeIOError(CIOError::Code code, const char* tried, DWORD systemError, const CProps& props);

/// True for the errors that say that nothing has the name that was given.
bool leadsNowhere(DWORD systemError) noexcept;

} // namespace lum
