#pragma once

#include "lum/IIOStream.h"

namespace lum {

/// Where files are. The library reaches every file through one of these; callers may bring their own.
/// One thread at a time uses the files of one disk; a file system that serves several disks in several
/// threads must bear that.
class TESSEL_EXPORT IFileSystem : public virtual IBase {
public:
    /// Opens a file, positioned at its start. Access_ReadWrite creates a missing file (not its folder).
    /// Any number of streams may be open on one file; they see each other's writes. Only regular files
    /// are opened.
    /// Throws: CFileSystemError with "uri"; Problem_NotFound when there is no such file to read.
    virtual P<IIOStream> openFile(const CURI& uri, IIOStream::Access access) = 0;

    /// True when there is something of this name, whatever it is.
    /// Throws: CFileSystemError when that cannot be told.
    virtual bool fileExists(const CURI& uri) = 0;

    /// Removes a file. With `ignoreMissing` it is no error when there is none.
    /// Throws: CFileSystemError with "uri".
    virtual void deleteFile(const CURI& uri, bool ignoreMissing) = 0;

    /// True when `uri` names the very file that `stream`, opened by this file system, is on: not one
    /// that was since put in its place. A lock file is removed without a race by means of this.
    virtual bool isFileOfStream(const CURI& uri, IIOStream& stream) = 0;

    /// Where `uri` leads to: the normal form of its name once every link on the way has been followed, also
    /// where the file itself is missing. A file system without links has nothing to follow, which is what
    /// this does unless it is overridden.
    /// Throws: CFileSystemError with "uri" when that cannot be told.
    virtual CURI followLinks(const CURI& uri);
};

} // namespace lum
