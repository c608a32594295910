#pragma once

#include "lum/CConfinedFileSystem.h"
#include "tessel/types.h"

// Disks name other files: their extents, their parents. A disk that came from somewhere could name any file
// of this machine, so that only files beside the disk are opened, and below the folders that the user names.

namespace tessel {

/// `files` as far as it may be used by the disk whose main file is `mainFile`: its own folder, that of the
/// file which a link leads to, and `folders`. Throws: as IFileSystem::followLinks.
P<CConfinedFileSystem> confineToDisk(IFileSystem* files, const CURI& mainFile, const TArray<CURI>& folders);

} // namespace tessel
