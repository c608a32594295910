#pragma once

#include "lum/COptimizingIOStream.h"
#include "lum/IFileSystem.h"
#include "tessel/types.h"

namespace tessel {

/// The buffered stream through which the library uses every VMDK file.
class TESSEL_EXPORT CVMDKLowLevelFileStream : public COptimizingIOStream {
public:
    /// Opens `uri` on the file system with this access. Throws: what IFileSystem::openFile throws.
    CVMDKLowLevelFileStream(IFileSystem* fileSystem, const CURI& uri, IIOStream::Access access);
};

} // namespace tessel
