#pragma once

#include "lum/String.h"

#include <string>

namespace lum {

/// `path`, a native path as uriToNativePath gives it, in the form in which the system takes every name as it
/// stands: absolute, without "." and "..", behind "\\?\". Paths may be as long as the file system allows, and
/// no name is another one in disguise, such as "disk.vmdk." or "nul". The empty path stays empty, and names
/// nothing. Throws: CFileSystemError when there is no current folder that a relative path could start at.
std::wstring toSystemPath(const String& path);

/// The reverse: `path` without "\\?\", for people and for URIs, where it can do without.
String fromSystemPath(const std::wstring& path);

} // namespace lum
