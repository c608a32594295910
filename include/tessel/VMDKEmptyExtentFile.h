#pragma once

#include "lum/IFileSystem.h"
#include "tessel/CVMDKDescriptor.h"

namespace tessel {

/// Writes a new sparse extent file that holds no grain yet: header, embedded descriptor if there is one,
/// both grain directories with all their tables, for compressed extents the slot size directory with its
/// tables and the footer records. Whatever the file held before is gone.
///
/// `grainCount` grains of `grainSizeSectors` each are the extent's capacity. `zeros` holds at least 512
/// zero bytes, and enough to fill up the descriptor's area. `descriptor` may be null;
/// `descriptorSizeSectors` is the size of its area. `encryptionKeyHash` goes into the header of an
/// encrypted extent and is empty for others.
///
/// Throws: CInvalidArgError for counts or buffers that cannot be; what opening throws. After any other
/// error the half-written file is deleted and the error goes on.
TESSEL_EXPORT void createEmptyVMDKSparseExtentFile(IFileSystem* fileSystem, const CURI& uri, bool compressed,
                                                   int64 grainCount, int64 grainSizeSectors,
                                                   const TBuffer<unsigned char>& zeros,
                                                   CVMDKDescriptor* descriptor, int64 descriptorSizeSectors,
                                                   const TBuffer<unsigned char>& encryptionKeyHash);

/// True for a file whose making was cut short, by a loss of power or the end of the process: it is shorter
/// than a header, or its header has no offsets yet. No grain was ever stored in it.
/// Throws: what opening and reading throw.
TESSEL_EXPORT bool isHalfMadeVMDKSparseExtentFile(IFileSystem* fileSystem, const CURI& uri);

} // namespace tessel
