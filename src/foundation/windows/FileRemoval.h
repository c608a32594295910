#pragma once

#include <windows.h>

#include <string>

namespace lum {

/// Deletes a file so that its name is free at once, while those who have the file open go on using it. Links
/// are not followed. Returns the system's error, ERROR_SUCCESS for none. `path` is as toSystemPath gives it.
DWORD removeFile(const std::wstring& path);

} // namespace lum
