#pragma once

#include "lum/CFileSystemError.h"
#include "lum/CIOError.h"

namespace lum {

// Errors made from values of errno. The message is what was tried, ": ", and the system's reason.

/// `props` begin with "uri".
CFileSystemError makeFileSystemError(const char* tried, int systemError, const CProps& props);

/// Code_NoSpace when there is no room, else `code`.
CIOError makeIOError(CIOError::Code code, const char* tried, int systemError, const CProps& props);

} // namespace lum
