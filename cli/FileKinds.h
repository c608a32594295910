#pragma once

#include "CPasswords.h"
#include "ISource.h"
#include "lum/IFileSystem.h"

#include <memory>
#include <string>

// Whether a file is a raw image or a VMDK disk.

namespace CLI {
class App;
} // namespace CLI

namespace tessel::cli {

enum class Kind { unclear, raw, vmdk };

/// An option that tells a kind, "raw" or "vmdk".
void addKindOption(CLI::App& verb, const std::string& option, std::string& kind, const std::string& help);
Kind kindOfOption(const std::string& option);
/// What the extension tells.
Kind kindOfName(const std::string& name);

/// The kind of an existing file: what an option says, else the name, else the first bytes. `optionName` is
/// the option, for the error. Throws: CFailure when there is no such file; CUsageError for a disk that is
/// named like a raw image.
Kind findKindOfFile(const std::string& name, const std::string& option, const char* optionName);

/// Opens an existing file of this kind. Throws: CFailure.
std::unique_ptr<ISource> openFileSource(const std::string& name, Kind kind, CPasswords& passwords,
                                        IFileSystem* files);

} // namespace tessel::cli
