#pragma once

#include "lum/CBase.h"
#include "lum/IFileSystem.h"

namespace lum {

/// Another file system, of which only the files in certain folders can be reached. What a descriptor from
/// anywhere names cannot lead out of them: not by an absolute path, "..", another scheme or server, nor
/// by a symbolic link.
///
/// The links are followed at the moment of the call. Whoever may change the allowed folders meanwhile is
/// not kept out by this.
class TESSEL_EXPORT CConfinedFileSystem : public CBase, public IFileSystem {
public:
    /// `folder` and all that is below it can be reached. Throws: as IFileSystem::followLinks.
    CConfinedFileSystem(IFileSystem* fileSystem, const CURI& folder);

    /// Lets another folder be reached.
    void allow(const CURI& folder);

    /// True when `uri` can be reached.
    bool isAllowed(const CURI& uri);

    // Each throws CFileSystemError, Problem_AccessDenied, with "uri" and "allowed" (the folders) for a file
    // that cannot be reached; otherwise what the file system throws.

    P<IIOStream> openFile(const CURI& uri, IIOStream::Access access) override;
    bool fileExists(const CURI& uri) override;
    void deleteFile(const CURI& uri, bool ignoreMissing) override;
    bool isFileOfStream(const CURI& uri, IIOStream& stream) override;
    CURI followLinks(const CURI& uri) override;

private:
    void verifyAllowed(const CURI& uri);

    P<IFileSystem> m_fileSystem;
    /// Folders in both forms, by name and with links followed.
    TArray<CURI> m_folders;
    TArray<CURI> m_realFolders;
};

} // namespace lum
