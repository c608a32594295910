#include "tessel/VMDKRenamedFile.h"

#include "tessel/VMDKFileReference.h"

#include <algorithm>

namespace tessel {

bool isRenamedVMDKFile(const CVMDKDescriptor& descriptor, const CURI& mainFileURI) {
    TArray<P<CVMDKExtentInfo>> extents;
    descriptor.getExtentEntries(extents);
    // An extent of no size takes no place in the disk.
    std::erase_if(extents, [](const auto& extent) { return extent->getSizeSectors() == 0; });
    return extents.size() == 1 &&
           vmdkFileReferenceToURI(mainFileURI.getParent(), extents.front()->getFilename()) !=
               mainFileURI.toNormalized();
}

} // namespace tessel
