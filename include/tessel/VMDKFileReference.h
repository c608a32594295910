#pragma once

#include "lum/IFileSystem.h"
#include "tessel/types.h"

namespace tessel {

/// The file that a reference in a descriptor names: a relative or absolute path in Windows or Unix
/// form, or a URI. `baseURI` is the folder of the file that holds the descriptor. The result is
/// normalised.
/// Throws: CBadPathError "Invalid path: …" for a reference that looks like a Windows path and is none.
TESSEL_EXPORT CURI vmdkFileReferenceToURI(const CURI& baseURI, const String& reference);

/// Opens a VMDK file. Throws: what the file system throws.
TESSEL_EXPORT P<IIOStream> openVMDKFileStream(IFileSystem* fileSystem, const CURI& uri,
                                              IIOStream::Access access);

/// The same for a file that must exist: with write access too, a missing file is the file system's
/// not-found error, and none is created.
TESSEL_EXPORT P<IIOStream> openExistingVMDKFileStream(IFileSystem* fileSystem, const CURI& uri,
                                                      IIOStream::Access access);

} // namespace tessel
