#pragma once

#include "foundation/lum/COpenFile.h"
#include "lum/IIOStream.h"

namespace lum {

// The files of this computer. Each system implements these in a folder of its own (posix, windows). `path` is
// a native path, which names no NUL character; `uri` is what errors name.

/// See IFileSystem::openFile and the constructor of CNativeFileSystem.
P<COpenFile> openNativeFile(const String& path, const CURI& uri, IIOStream::Access access,
                            bool waitForMedium);

/// See IFileSystem::fileExists.
bool nativeFileExists(const String& path, const CURI& uri);

/// See IFileSystem::deleteFile.
void deleteNativeFile(const String& path, const CURI& uri, bool ignoreMissing);

/// True when `path` leads to the very file that `file` is; false when it leads nowhere.
/// Throws: CFileSystemError when that cannot be told; CInvalidArgError when `file` is none that
/// openNativeFile gave.
bool isNativeFileAt(const String& path, const CURI& uri, const COpenFile& file);

/// The path from the root that `path` leads to, with every link followed; see IFileSystem::followLinks.
String followNativeLinks(const String& path, const CURI& uri);

} // namespace lum
