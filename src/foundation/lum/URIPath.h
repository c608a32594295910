#pragma once

#include "lum/String.h"

/// Paths of URIs: names with escapes between "/".
namespace lum::uripath {

/// True for "." and "..", the dots written out or escaped: names that tell a way and call no file.
bool isDotSegment(const String& segment) noexcept;

/// The path up to its last "/", that included, and what is behind it.
String getFolder(const String& path);
String getLastSegment(const String& path);

/// The path without "." and ".." segments (RFC 3986 section 5.2.4). In a path that begins with "/", ".."
/// does not lead above the root. A relative path keeps the ".." with which it leaves its folder, and
/// begins with "./" where it would be empty or begin with "/" without.
String removeDotSegments(const String& path);

} // namespace lum::uripath
