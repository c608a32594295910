#pragma once

#include <filesystem>
#include <string>

// Targets appear under their names only when they are complete. Until then they stand in a place of their
// own in the same folder, and whatever ends the program early removes that.

namespace tessel::cli {

/// What the target of a name is: a symbolic link's file in place of the link.
/// Throws: CFailure when the folder is missing, something that is no regular file has the name, or, without
/// `force`, anything has it.
std::filesystem::path resolveTarget(const std::string& name, bool force);

/// A name in `folder` that nothing has.
std::filesystem::path makeTemporaryName(const std::filesystem::path& folder);

/// The folder that holds a file; "." for a bare name.
std::filesystem::path folderOf(const std::filesystem::path& path);

} // namespace tessel::cli
