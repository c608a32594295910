#include "tessel/CVMDKLowLevelFileStream.h"

namespace tessel {

CVMDKLowLevelFileStream::CVMDKLowLevelFileStream(IFileSystem* fileSystem, const CURI& uri,
                                                 IIOStream::Access access)
    : COptimizingIOStream(fileSystem->openFile(uri, access).get()) {}

} // namespace tessel
