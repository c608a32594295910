#pragma once

#include "lum/CURI.h"
#include "tessel/CVMDKDescriptor.h"

namespace tessel {

/// Whether a main file was renamed or copied by hand: the descriptor, which stands in the sparse extent
/// `mainFileURI`, names one extent, and that by the name of another file. False when it names several, or
/// none. Throws: as vmdkFileReferenceToURI.
TESSEL_EXPORT bool isRenamedVMDKFile(const CVMDKDescriptor& descriptor, const CURI& mainFileURI);

} // namespace tessel
