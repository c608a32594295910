#include "foundation/posix/CPosixFile.h"

#include "foundation/lum/StreamHelpers.h"
#include "foundation/posix/SystemErrors.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

static_assert(sizeof(off_t) == 8, "files need 64-bit positions");

namespace lum {

namespace {

/// Calls a function of the system again for as long as a signal interrupts it.
template <class Call>
auto untilNotInterrupted(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

/// What errors name: the file, and what was asked of it.
CProps makeTransferProps(const CURI& uri, int64 position, const char* countName, int count) {
    return makeStreamProps(uri).add("position", position).add(countName, count);
}

/// A record for fcntl about the positions from `start` up to `end`.
struct flock makeLockRecord(short type, int64 start, int64 end) noexcept {
    struct flock record = {};
    record.l_type = type;
    record.l_whence = SEEK_SET;
    record.l_start = start;
    record.l_len = end == INT64_MAX ? 0 : end - start;
    return record;
}

} // namespace

CPosixFile::CPosixFile(const std::string& path, const CURI& uri, IIOStream::Access access, bool waitForMedium)
    : COpenFile(uri), m_mayWrite(access == IIOStream::Access_ReadWrite), m_waitForMedium(waitForMedium) {
    const bool created = open(path.c_str(), access);
    verifyKind();
    if (created && waitForMedium)
        openFolderOf(path.c_str());
}

/// True when the file was made.
bool CPosixFile::open(const char* path, IIOStream::Access access) {
    // O_NONBLOCK: a pipe that nobody writes must not hold us up before we know that it is one.
    constexpr int common = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    const auto openWith = [&](int flags) {
        return untilNotInterrupted([&] { return ::open(path, flags | common, 0666); });
    };
    const int mode = access == IIOStream::Access_ReadWrite ? O_RDWR : O_RDONLY;
    bool created = false;
    int descriptor = openWith(mode);
    if (descriptor < 0 && errno == ENOENT && mode == O_RDWR) {
        descriptor = openWith(mode | O_CREAT);
        created = true;
    }
    if (descriptor < 0)
        throwOpenFailed(errno);
    m_file = CFileDescriptor(descriptor);
    return created;
}

/// Refuses what is no file, and makes transfers wait for a file's data from now on.
void CPosixFile::verifyKind() {
    struct stat status = {};
    if (::fstat(m_file.get(), &status) != 0)
        throwOpenFailed(errno);
    if (S_ISDIR(status.st_mode))
        throwOpenFailed(EISDIR);
    m_isBlockDevice = S_ISBLK(status.st_mode);
    if (!m_isBlockDevice && !S_ISREG(status.st_mode))
        throw CFileSystemError(
            CFileSystemError::Problem_NotAFile,
            CError("Cannot open file: Not a regular file", String(), -1, makeStreamProps(getURI())));
    const int flags = ::fcntl(m_file.get(), F_GETFL);
    if (flags < 0 || ::fcntl(m_file.get(), F_SETFL, flags & ~O_NONBLOCK) != 0)
        throwOpenFailed(errno);
}

void CPosixFile::throwOpenFailed(int systemError) const {
    throw makeFileSystemError("Cannot open file", systemError, makeStreamProps(getURI()));
}

/// Keeps the folder open for the first flush. A folder that may not be read cannot be synchronised by
/// anybody; the file is as good as the system makes it then.
void CPosixFile::openFolderOf(const char* path) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path, nullptr), &std::free);
    if (!real) {
        // Somebody may have moved or deleted the file already.
        m_folderError = errno == ENOENT || errno == EACCES ? 0 : errno;
        return;
    }
    std::string folder(real.get());
    folder.resize(folder.find_last_of('/') + 1);
    m_folder = CFileDescriptor(
        untilNotInterrupted([&] { return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!m_folder.isOpen() && errno != ENOENT && errno != EACCES)
        m_folderError = errno;
}

bool CPosixFile::isFileOf(const struct stat& status) const {
    struct stat own = {};
    if (::fstat(m_file.get(), &own) != 0) {
        const int error = errno;
        throw makeFileSystemError("Cannot look up file", error, makeStreamProps(getURI()));
    }
    return own.st_dev == status.st_dev && own.st_ino == status.st_ino;
}

int64 CPosixFile::getLength() const {
    struct stat status = {};
    int64 length = -1;
    if (m_isBlockDevice)
        length = ::lseek(m_file.get(), 0, SEEK_END);
    else if (::fstat(m_file.get(), &status) == 0)
        length = status.st_size;
    if (length < 0) {
        const int error = errno;
        throw makeIOError(CIOError::Code_ReadFailed, "Cannot find the length of the file", error,
                          makeStreamProps(getURI()));
    }
    return length;
}

int CPosixFile::read(int64 position, void* buffer, int count) {
    int done = 0;
    while (done < count) {
        const ssize_t got = untilNotInterrupted([&] {
            return ::pread(m_file.get(), static_cast<char*>(buffer) + done, static_cast<size_t>(count - done),
                           position + done);
        });
        if (got < 0) {
            const int error = errno;
            throw makeIOError(CIOError::Code_ReadFailed, "Cannot read from file", error,
                              makeTransferProps(getURI(), position, "bytesToRead", count));
        }
        if (got == 0)
            break;
        done += static_cast<int>(got);
    }
    return done;
}

void CPosixFile::write(int64 position, const void* data, int size) {
    int done = 0;
    while (done < size) {
        const ssize_t put = untilNotInterrupted([&] {
            return ::pwrite(m_file.get(), static_cast<const char*>(data) + done,
                            static_cast<size_t>(size - done), position + done);
        });
        if (put <= 0) {
            // A system that takes nothing and gives no reason would keep us here for ever.
            const int error = put < 0 ? errno : EIO;
            throw makeIOError(CIOError::Code_WriteFailed, "Cannot write to file", error,
                              makeTransferProps(getURI(), position, "bytesToWrite", size));
        }
        done += static_cast<int>(put);
    }
}

void CPosixFile::setLength(int64 length) {
    const CProps props = makeStreamProps(getURI()).add("length", length);
    if (m_isBlockDevice)
        throw CIOError(CIOError::Code_LengthNotSettable,
                       "Cannot change the length of the file: It is a device", props);
    if (untilNotInterrupted([&] { return ::ftruncate(m_file.get(), length); }) != 0)
        throw makeIOError(CIOError::Code_WriteFailed, "Cannot change the length of the file", errno, props);
}

void CPosixFile::flush() {
    if (!m_waitForMedium)
        return;
    if (m_flushError == 0 && untilNotInterrupted([&] { return ::fdatasync(m_file.get()); }) != 0)
        m_flushError = errno;
    if (m_flushError == 0)
        m_flushError = syncFolder();
    if (m_flushError != 0)
        throw makeIOError(CIOError::Code_WriteFailed, "Cannot flush file", m_flushError,
                          makeStreamProps(getURI()));
}

/// Makes the name of a new file durable. Returns the system's error, 0 for none.
int CPosixFile::syncFolder() noexcept {
    if (!m_folder.isOpen())
        return m_folderError;
    const int result = untilNotInterrupted([&] { return ::fsync(m_folder.get()); });
    // EINVAL: a file system that cannot synchronise folders has no better to offer.
    const int error = result != 0 && errno != EINVAL ? errno : 0;
    m_folder = CFileDescriptor();
    return error;
}

bool CPosixFile::tryLock(int64 start, int64 end, bool exclusive) {
    // Locks of the open file, not of the process: two users in one process exclude each other, and
    // closing another descriptor of the same file releases nothing.
    struct flock record = makeLockRecord(exclusive ? F_WRLCK : F_RDLCK, start, end);
    if (untilNotInterrupted([&] { return ::fcntl(m_file.get(), F_OFD_SETLK, &record); }) == 0)
        return true;
    const int error = errno;
    if (error == EAGAIN || error == EACCES)
        return false;
    throw makeFileSystemError("Cannot lock file", error,
                              makeStreamProps(getURI()).add("start", start).add("length", record.l_len));
}

void CPosixFile::unlock(int64 start, int64 end) noexcept {
    struct flock record = makeLockRecord(F_UNLCK, start, end);
    // It fails only when the system has forgotten the lock (a server that was restarted).
    untilNotInterrupted([&] { return ::fcntl(m_file.get(), F_OFD_SETLK, &record); });
}

void CPosixFile::closeFile() {
    // The descriptor is gone even when an error is told; for network file systems that is the last
    // chance to tell of data that could not be written.
    const int error = ::close(m_file.take()) != 0 ? errno : 0;
    if (error != 0 && error != EINTR && m_mayWrite)
        throw makeIOError(CIOError::Code_WriteFailed, "Cannot close file", error, makeStreamProps(getURI()));
}

} // namespace lum
