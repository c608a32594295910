#pragma once

#include "lum/IFileSystem.h"
#include "tessel/types.h"

#include <string>

// Which files a disk may name, as the command line tells it.

namespace CLI {
class App;
} // namespace CLI

namespace tessel::cli {

/// --allow, for a verb that opens disks.
void addAllowOption(CLI::App& verb);

/// `files` as far as it may be used by the disk `name`: its own folder (that of the file, too, which a link
/// leads to) and what --allow names. Throws: CFailure for a folder that is none.
P<IFileSystem> confine(IFileSystem* files, const std::string& name);

/// Whether the disk `name` may use the file `uri`.
bool isAllowedFor(const std::string& name, const CURI& uri);

} // namespace tessel::cli
