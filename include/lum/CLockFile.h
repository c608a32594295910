#pragma once

#include "lum/CBase.h"
#include "lum/IFileSystem.h"

namespace lum {

class CFileSystemError;

/// Keeps users of a thing apart by a lock on a file beside it, for as long as the object lives: any
/// number of readers, or one writer. The system drops the lock when its process dies, so a lock file
/// that was left behind blocks nobody.
class TESSEL_EXPORT CLockFile : public CBase {
public:
    /// Whom the lock keeps out.
    enum LockType {
        LockType_Shared = 1,    ///< shared with other readers
        LockType_Exclusive = 2, ///< alone
    };

    /// Makes the lock file where it is missing and locks it. With `wait` it tries again until it has
    /// the lock, else it fails at once. With `deleteOnRelease` the last user removes the file.
    ///
    /// A reader who may not make or write the file (a read-only medium, a folder of somebody else) is
    /// content with a lock on an existing file, and without one goes on unlocked, with a warning.
    ///
    /// Throws: CFileSystemError, Problem_Locked and "uri" (of the lock file) when another has it; other
    /// problems as IFileSystem::openFile.
    CLockFile(IFileSystem* fileSystem, const CURI& uri, LockType lockType, bool wait, bool deleteOnRelease);
    ~CLockFile() override;
    CLockFile(const CLockFile&) = delete;
    CLockFile& operator=(const CLockFile&) = delete;

    /// False for a reader who had to go on without a lock.
    bool isLocked() const noexcept { return static_cast<bool>(m_lock); }

private:
    bool tryLock();
    P<IIOStream> open();
    P<IIOStream> openForReading(const CFileSystemError& whyNotForWriting);
    void removeIfUnused();

    P<IFileSystem> m_fileSystem;
    CURI m_uri;
    LockType m_lockType;
    bool m_deleteOnRelease;
    P<IIOStream> m_stream;
    P<IStreamLock> m_lock;
};

} // namespace lum
