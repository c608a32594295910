#pragma once

#include "lum/CURI.h"
#include "tessel/types.h"

#include <filesystem>
#include <string>

// Names of files as the user writes them: UTF-8 text, seen from the current folder.

namespace tessel::cli {

std::filesystem::path pathFromName(const std::string& name);
std::string nameFromPath(const std::filesystem::path& path);
/// Throws: CFailure for a name that is no UTF-8 or that this system cannot have.
CURI uriFromName(const std::string& name);
CURI uriFromPath(const std::filesystem::path& path);
std::filesystem::path pathFromURI(const CURI& uri);

/// Whether there is something of this name; a link that leads nowhere counts. Throws: CFailure.
bool somethingExists(const std::filesystem::path& path);
/// Whether two names lead to the same existing file.
bool isSameFile(const std::filesystem::path& a, const std::filesystem::path& b);
/// Throws: CFailure when there is no such file, or it is a folder.
void verifyIsFile(const std::string& name);
/// The name in lower case, ASCII letters only, ends with `extension`.
bool hasExtension(const std::string& name, const char* extension);

} // namespace tessel::cli
