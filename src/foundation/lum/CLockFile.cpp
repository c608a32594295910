#include "lum/CLockFile.h"

#include "lum/CFileSystemError.h"
#include "lum/Logging.h"

#include <chrono>
#include <thread>

namespace lum {

namespace {

using Clock = std::chrono::steady_clock;

// Two bytes of the file are locked. The first is the lock that users hold. The second is a gate: who
// comes passes it shared, for the moment of trying; who leaves and wants to remove the file shuts it.
// Without it a reader who tries, while leaving, whether he is the last one would for that moment shut
// out others who come, and they would fail though nobody writes.
constexpr int64 useByte = 0;
constexpr int64 gateByte = 1;

/// How long a user who waits sleeps before the next attempt.
constexpr std::chrono::milliseconds waitPause(20);
/// The same at the gate, which nobody holds for long.
constexpr std::chrono::milliseconds gatePause(1);
/// How long the gate may stay shut before we stop believing that.
constexpr std::chrono::seconds gatePatience(5);

/// Null when another user has it.
P<IStreamLock> tryLockByte(IIOStream& stream, int64 position, IStreamBase::LockType type) {
    try {
        return stream.lockRange(position, 1, type);
    } catch (const CFileSystemError& error) {
        if (error.getProblem() != CFileSystemError::Problem_Locked)
            throw;
        return nullptr;
    }
}

} // namespace

CLockFile::CLockFile(IFileSystem* fileSystem, const CURI& uri, LockType lockType, bool wait,
                     bool deleteOnRelease)
    : m_fileSystem(fileSystem), m_uri(uri), m_lockType(lockType), m_deleteOnRelease(deleteOnRelease) {
    while (!tryLock()) {
        const String name = m_uri.toString(true);
        if (!wait)
            throw CFileSystemError(
                CFileSystemError::Problem_Locked,
                CError("Cannot lock \"" + name + "\": It is locked by another user or process.", String(), -1,
                       CProps().add("uri", name)));
        std::this_thread::sleep_for(waitPause);
    }
}

CLockFile::~CLockFile() {
    try {
        if (!m_stream)
            return;
        removeIfUnused();
        m_stream->close();
    } catch (const std::exception& error) {
        onExceptionInDestructorIgnored("lum::CLockFile", error, false);
    }
}

/// False when another user excludes this one.
bool CLockFile::tryLock() {
    const auto type = static_cast<IStreamBase::LockType>(m_lockType);
    for (const auto deadline = Clock::now() + gatePatience; Clock::now() < deadline;) {
        const P<IIOStream> stream = open();
        if (!stream)
            return true;
        const P<IStreamLock> gate = tryLockByte(*stream, gateByte, IStreamBase::LockType_Shared);
        if (!gate) {
            std::this_thread::sleep_for(gatePause);
            continue;
        }
        const P<IStreamLock> lock = tryLockByte(*stream, useByte, type);
        if (!m_fileSystem->isFileOfStream(m_uri, *stream))
            continue; // the last user has removed it since we opened it, so this is nobody's lock
        if (!lock)
            return false;
        m_stream = stream;
        m_lock = lock;
        return true;
    }
    return false;
}

/// The lock file; null when a reader has to do without.
P<IIOStream> CLockFile::open() {
    try {
        return m_fileSystem->openFile(m_uri, IIOStream::Access_ReadWrite);
    } catch (const CFileSystemError& error) {
        const bool mayNotWrite = error.getProblem() == CFileSystemError::Problem_AccessDenied ||
                                 error.getProblem() == CFileSystemError::Problem_ReadOnlyMedium;
        if (m_lockType != LockType_Shared || !mayNotWrite)
            throw;
        return openForReading(error);
    }
}

P<IIOStream> CLockFile::openForReading(const CFileSystemError& whyNotForWriting) {
    m_deleteOnRelease = false; // whoever may not write it leaves it to those who may
    try {
        return m_fileSystem->openFile(m_uri, IIOStream::Access_Read);
    } catch (const CFileSystemError& error) {
        if (error.getProblem() != CFileSystemError::Problem_NotFound)
            throw;
        logWarning(whyNotForWriting,
                   "Cannot make the lock file \"" + m_uri.toString(true) +
                       "\": Reading goes on without a lock.",
                   String());
        return nullptr;
    }
}

void CLockFile::removeIfUnused() {
    if (!m_deleteOnRelease)
        return;
    P<IStreamLock> gate;
    if (m_lockType == LockType_Shared) {
        const auto deadline = Clock::now() + gatePatience;
        while (!(gate = tryLockByte(*m_stream, gateByte, IStreamBase::LockType_Exclusive))) {
            if (Clock::now() >= deadline)
                return;
            std::this_thread::sleep_for(gatePause);
        }
        m_lock->unlock();
        m_lock = tryLockByte(*m_stream, useByte, IStreamBase::LockType_Exclusive);
        if (!m_lock)
            return; // others use it; the last of them removes it
    }
    if (m_fileSystem->isFileOfStream(m_uri, *m_stream))
        m_fileSystem->deleteFile(m_uri, true);
}

} // namespace lum
