#include "Errors.h"
#include "Names.h"
#include "platform.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <system_error>

#if __has_include(<linux/fs.h>)
#include <linux/fs.h>
#endif
#if __has_include(<sys/syscall.h>)
#include <sys/syscall.h>
#endif
#if __has_include(<sys/prctl.h>)
#include <sys/prctl.h>
#endif
#if __has_include(<sys/xattr.h>)
#include <sys/xattr.h>
#endif
#if __has_include(<linux/xattr.h>) // which goes by what the one before it has defined
#include <linux/xattr.h>
#endif

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

std::atomic<int> g_signal = 0;
/// The handler writes a byte here, so that whoever waits for input wakes even when the signal comes just
/// before the wait.
int g_wakePipe[2] = {-1, -1};
std::atomic<bool> g_inputIsOver = false;

void wakeWhoeverWaits() noexcept {
    const char byte = 0;
    [[maybe_unused]] const ssize_t written = ::write(g_wakePipe[1], &byte, 1);
}

void noteSignal(int signal) noexcept {
    const int savedError = errno;
    g_signal = signal;
    wakeWhoeverWaits();
    errno = savedError;
}

void setHandler(int signal, void (*handler)(int)) noexcept {
    struct sigaction action = {};
    action.sa_handler = handler;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
}

std::string describeSystemError(int error) {
    return std::generic_category().message(error);
}

int descriptorOf(std::intptr_t handle) noexcept {
    return static_cast<int>(handle);
}

[[noreturn]] void failStandardStream(const char* stream, const char* tried, int error) {
    throw CFailure(stream, std::string(tried) + ": " + describeSystemError(error));
}

/// Waits until a transfer would not block, or a signal came.
void waitFor(int descriptor, short events) {
    throwIfInterrupted();
    struct pollfd waits[2] = {{descriptor, events, 0}, {g_wakePipe[0], POLLIN, 0}};
    while (::poll(waits, g_wakePipe[0] < 0 ? 1 : 2, -1) < 0)
        if (errno != EINTR)
            return; // what is wrong shows in the transfer
    throwIfInterrupted();
}

/// Gives a file the access control list of another; where that has none it loses one that its folder gave it.
bool tryGiveAccessList([[maybe_unused]] int handle, [[maybe_unused]] const fs::path& from) {
#if defined(XATTR_NAME_POSIX_ACL_ACCESS)
    constexpr auto name = XATTR_NAME_POSIX_ACL_ACCESS;
    const ssize_t size = ::getxattr(from.c_str(), name, nullptr, 0);
    if (size >= 0) {
        std::vector<char> list(static_cast<std::size_t>(size));
        const ssize_t held = ::getxattr(from.c_str(), name, list.data(), list.size());
        return held >= 0 && ::fsetxattr(handle, name, list.data(), static_cast<std::size_t>(held), 0) == 0;
    }
    const auto hasNone = [] { return errno == ENODATA || errno == ENOTSUP; };
    return hasNone() && (::fremovexattr(handle, name) == 0 || hasNone());
#else
    return true;
#endif
}

/// Whoever may not give the file away keeps it; a group that it cannot have gets nothing. Under a list the
/// group's bits are the most that it gives to anybody, and would let a group in that the list keeps out.
bool tryGiveAccess(int handle, const fs::path& from) {
    struct stat wanted = {};
    struct stat actual = {};
    if (::stat(from.c_str(), &wanted) != 0 || ::fstat(handle, &actual) != 0)
        return false;
    mode_t mode = wanted.st_mode & 0777;
    bool isGroupGiven = true;
    if ((actual.st_uid != wanted.st_uid || actual.st_gid != wanted.st_gid) &&
        ::fchown(handle, wanted.st_uid, wanted.st_gid) != 0 && actual.st_gid != wanted.st_gid &&
        ::fchown(handle, static_cast<uid_t>(-1), wanted.st_gid) != 0)
        isGroupGiven = false;
    if (!isGroupGiven || !tryGiveAccessList(handle, from))
        mode &= ~static_cast<mode_t>(070);
    return ::fstat(handle, &actual) == 0 && ((actual.st_mode & 0777) == mode || ::fchmod(handle, mode) == 0);
}

/// The terminal does not show what is typed as long as this lives.
class CEchoOff {
public:
    explicit CEchoOff(int terminal) : m_terminal(terminal) {
        m_changed = ::tcgetattr(terminal, &m_before) == 0;
        struct termios quiet = m_before;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        quiet.c_lflag |= ECHONL;
        m_changed = m_changed && ::tcsetattr(terminal, TCSAFLUSH, &quiet) == 0;
    }
    ~CEchoOff() {
        if (m_changed)
            ::tcsetattr(m_terminal, TCSAFLUSH, &m_before);
    }
    CEchoOff(const CEchoOff&) = delete;
    CEchoOff& operator=(const CEchoOff&) = delete;

    bool isOff() const noexcept { return m_changed; }

private:
    int m_terminal;
    bool m_changed = false;
    struct termios m_before = {};
};

} // namespace

std::vector<std::string> getArguments(int argc, char** argv) {
    return std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc);
}

// --- The process ---

void prepareProcess() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (::fcntl(stream, F_GETFD) < 0 && errno == EBADF &&
            ::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY) != stream)
            ::_exit(Exit_Failed);
    if (::pipe(g_wakePipe) == 0)
        for (const int end : g_wakePipe) {
            ::fcntl(end, F_SETFD, FD_CLOEXEC);
            ::fcntl(end, F_SETFL, O_NONBLOCK);
        }
    setHandler(SIGPIPE, SIG_IGN);
    setHandler(SIGXFSZ, SIG_IGN);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        // Who starts a program in the background or under nohup has these ignored, and wants that.
        if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN)
            continue;
        setHandler(signal, noteSignal);
    }
}

void forbidCoreDumps() noexcept {
    const struct rlimit none = {0, 0};
    ::setrlimit(RLIMIT_CORE, &none);
#if defined(PR_SET_DUMPABLE)
    // The limit does not hold where the system hands the memory to a program.
    ::prctl(PR_SET_DUMPABLE, 0);
#endif
}

void forgetInterruption() noexcept {
    g_signal = 0;
    struct pollfd wait = {g_wakePipe[0], POLLIN, 0};
    char byte = 0;
    while (g_wakePipe[0] >= 0 && ::poll(&wait, 1, 0) > 0 && ::read(g_wakePipe[0], &byte, 1) > 0) {
    }
}

bool isInterrupted() noexcept {
    return g_signal != 0;
}

void throwIfInterrupted() {
    if (isInterrupted())
        throw CInterrupted();
}

void endInterrupted() {
    const int signal = g_signal;
    setHandler(signal, SIG_DFL);
    ::kill(::getpid(), signal);
    ::_exit(Exit_Failed);
}

// --- Terminal and standard streams ---

bool isInputTerminal() {
    return ::isatty(STDIN_FILENO) != 0;
}

bool isOutputTerminal() {
    return ::isatty(STDOUT_FILENO) != 0;
}

bool isErrorTerminal() {
    return ::isatty(STDERR_FILENO) != 0;
}

bool isOutputColoured() {
    const char* const terminal = std::getenv("TERM"); // NOLINT(concurrency-mt-unsafe): nobody changes it
    return isOutputTerminal() && terminal && std::string(terminal) != "dumb";
}

int getErrorWidth() {
    struct winsize size = {};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

TCryptBuffer<char> askWithoutEcho(const std::string& question) {
    if (!isInputTerminal())
        throw CFailure("standard input", "It is no terminal to ask for a password on");
    const CEchoOff echoOff(STDIN_FILENO);
    if (!echoOff.isOff())
        throw CFailure("standard input", "The terminal cannot hide what is typed");
    writeErrorText(question);
    TCryptBuffer<char> answer;
    char c = 0;
    while (readInput(&c, 1) == 1 && c != '\n')
        answer.append(&c, 1);
    return answer;
}

int64 getInputSize() {
    struct stat status = {};
    if (::fstat(STDIN_FILENO, &status) != 0 || !S_ISREG(status.st_mode))
        return -1;
    const off_t position = ::lseek(STDIN_FILENO, 0, SEEK_CUR);
    return position < 0 || position > status.st_size ? -1 : status.st_size - position;
}

int readInput(void* buffer, int count) {
    int done = 0;
    while (done < count) {
        waitFor(STDIN_FILENO, POLLIN);
        if (g_inputIsOver)
            throw CInterrupted();
        const ssize_t got =
            ::read(STDIN_FILENO, static_cast<char*>(buffer) + done, static_cast<std::size_t>(count - done));
        if (got == 0)
            break;
        if (got > 0)
            done += static_cast<int>(got);
        else if (errno != EINTR && errno != EAGAIN)
            failStandardStream("standard input", "Cannot read", errno);
    }
    return done;
}

void stopWaitingForInput() noexcept {
    g_inputIsOver = true;
    wakeWhoeverWaits();
}

void writeOutput(const void* data, int64 size) {
    constexpr int64 most = 1 << 20;
    const auto* rest = static_cast<const char*>(data);
    while (size > 0) {
        waitFor(STDOUT_FILENO, POLLOUT);
        const ssize_t put = ::write(STDOUT_FILENO, rest, static_cast<std::size_t>(std::min(size, most)));
        if (put >= 0) {
            rest += put;
            size -= put;
        } else if (errno == EPIPE) {
            g_signal = SIGPIPE;
            throw CInterrupted();
        } else if (errno != EINTR && errno != EAGAIN) {
            failStandardStream("standard output", "Cannot write", errno);
        }
    }
}

void writeErrorText(const std::string& text) noexcept {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t put = ::write(STDERR_FILENO, text.data() + done, text.size() - done);
        if (put > 0)
            done += static_cast<std::size_t>(put);
        else if (put == 0 || errno != EINTR)
            return;
    }
}

// --- Files ---

fs::path toSystemPath(const std::string& name) {
    return name;
}

std::string fromSystemPath(const fs::path& path) {
    return path.native();
}

std::string describeSystemError(const std::error_code& error) {
    return error.message();
}

bool isDriveName(const fs::path&) {
    return false; // they are files like others
}

bool isLink(const fs::path& path) noexcept {
    std::error_code error;
    return fs::is_symlink(path, error);
}

fs::path followLinks(const fs::path& path, std::error_code& error) {
    return fs::canonical(path, error);
}

void createPrivateFolder(const fs::path& path, std::error_code& error) {
    fs::create_directory(path, error);
    std::error_code ignored;
    if (!error)
        fs::permissions(path, fs::perms::owner_all, ignored);
}

void CRawFile::fail(const char* tried) const {
    const int error = errno;
    throw CFailure(nameFromPath(m_path), std::string(tried) + ": " + describeSystemError(error));
}

CRawFile CRawFile::openForReading(const fs::path& path) {
    // O_NONBLOCK: a pipe that nobody writes must not hold us up before we know that it is one.
    CRawFile file(path, ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (file.m_handle < 0)
        file.fail("Cannot open file");
    struct stat status = {};
    if (::fstat(descriptorOf(file.m_handle), &status) != 0)
        file.fail("Cannot open file");
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode))
        throw CFailure(nameFromPath(path), "Cannot open file: Not a regular file");
    return file;
}

CRawFile CRawFile::createNew(const fs::path& path, const fs::path& shownAs) {
    CRawFile file(shownAs, ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (file.m_handle < 0)
        file.fail("Cannot make file");
    return file;
}

CRawFile::CRawFile(CRawFile&& other) noexcept : m_path(std::move(other.m_path)), m_handle(other.m_handle) {
    other.m_handle = -1;
}

CRawFile::~CRawFile() {
    if (m_handle >= 0)
        ::close(descriptorOf(m_handle));
}

int64 CRawFile::getLength() const {
    const off_t length = ::lseek(descriptorOf(m_handle), 0, SEEK_END);
    if (length < 0)
        fail("Cannot find the length of the file");
    return length;
}

CRawFile::URegion CRawFile::findData(int64 position, int64 length) const {
#if defined(SEEK_DATA) && defined(SEEK_HOLE)
    const off_t start = ::lseek(descriptorOf(m_handle), position, SEEK_DATA);
    if (start < 0)
        return errno == ENXIO ? URegion{length, length} : URegion{position, length};
    const off_t end = ::lseek(descriptorOf(m_handle), start, SEEK_HOLE);
    return {std::min<int64>(start, length), end < 0 ? length : std::min<int64>(end, length)};
#else
    return {position, length};
#endif
}

void CRawFile::read(int64 position, void* buffer, int count) const {
    int done = 0;
    while (done < count) {
        const ssize_t got = ::pread(descriptorOf(m_handle), static_cast<char*>(buffer) + done,
                                    static_cast<std::size_t>(count - done), position + done);
        if (got == 0)
            throw CFailure(nameFromPath(m_path), "The file became shorter while it was read");
        if (got > 0)
            done += static_cast<int>(got);
        else if (errno != EINTR)
            fail("Cannot read from file");
    }
}

void CRawFile::write(int64 position, const void* data, int size) {
    int done = 0;
    while (done < size) {
        const ssize_t put = ::pwrite(descriptorOf(m_handle), static_cast<const char*>(data) + done,
                                     static_cast<std::size_t>(size - done), position + done);
        if (put > 0)
            done += static_cast<int>(put);
        else if (put == 0 || errno != EINTR)
            fail("Cannot write to file");
    }
}

void CRawFile::setLength(int64 length) {
    while (::ftruncate(descriptorOf(m_handle), length) != 0)
        if (errno != EINTR)
            fail("Cannot set the length of the file");
}

void CRawFile::copyAccessFrom(const fs::path& path) {
    if (!tryGiveAccess(descriptorOf(m_handle), path))
        fail("Cannot set the permissions of the file");
}

void CRawFile::sync() {
    while (::fsync(descriptorOf(m_handle)) != 0)
        if (errno != EINTR)
            fail("Cannot flush file");
}

void CRawFile::close() {
    const int handle = descriptorOf(m_handle);
    m_handle = -1;
    if (::close(handle) != 0 && errno != EINTR)
        fail("Cannot close file");
}

void copyAccess(const fs::path& from, const fs::path& to) {
    const int handle = ::open(to.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    const bool isGiven = handle >= 0 && tryGiveAccess(handle, from);
    const int error = errno;
    if (handle >= 0)
        ::close(handle);
    if (!isGiven)
        throw CFailure(nameFromPath(to),
                       "Cannot set the permissions of the file: " + describeSystemError(error));
}

int64 getAllocatedSize(const fs::path& path) {
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0)
        throw CFailure(nameFromPath(path), "Cannot look up file: " + describeSystemError(errno));
    return int64{status.st_blocks} * 512;
}

void moveFile(const fs::path& from, const fs::path& to, bool replace) {
    int result = -1;
    errno = ENOSYS;
    if (!replace) {
#if defined(SYS_renameat2) && defined(RENAME_NOREPLACE)
        result = static_cast<int>(
            ::syscall(SYS_renameat2, AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE));
#endif
        // Where the system or the file system does not know it, a second link is as careful.
        if (result != 0 && (errno == ENOSYS || errno == EINVAL) && ::link(from.c_str(), to.c_str()) == 0)
            result = ::unlink(from.c_str());
    }
    const bool cannotTell = errno == EPERM || errno == EOPNOTSUPP || errno == ENOSYS;
    if (replace || (result != 0 && cannotTell && !somethingExists(to)))
        result = ::rename(from.c_str(), to.c_str());
    if (result == 0)
        return;
    const int error = cannotTell && !replace && somethingExists(to) ? EEXIST : errno;
    throw CFailure(nameFromPath(to),
                   error == EEXIST ? "The file was made by somebody else in the meantime"
                                   : "Cannot give the finished file its name: " + describeSystemError(error));
}

bool areNamesOfOneFile(const fs::path& a, const fs::path& b) {
    struct stat first = {};
    struct stat second = {};
    // One name of which there are two spellings shows in the number of names.
    return ::lstat(a.c_str(), &first) == 0 && ::lstat(b.c_str(), &second) == 0 && S_ISREG(first.st_mode) &&
           S_ISREG(second.st_mode) && first.st_dev == second.st_dev && first.st_ino == second.st_ino &&
           first.st_nlink >= 2;
}

bool areNamesOfTwoFiles(const fs::path& a, const fs::path& b) {
    struct stat first = {};
    struct stat second = {};
    return ::lstat(a.c_str(), &first) == 0 && ::lstat(b.c_str(), &second) == 0 && S_ISREG(first.st_mode) &&
           S_ISREG(second.st_mode) && (first.st_dev != second.st_dev || first.st_ino != second.st_ino);
}

void syncFolder(const fs::path& folder) {
    const int handle = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // EINVAL: a file system that cannot synchronise folders has no better to offer.
    const bool failed = handle < 0 || (::fsync(handle) != 0 && errno != EINVAL);
    const int error = errno;
    if (handle >= 0)
        ::close(handle);
    if (failed)
        throw CFailure(nameFromPath(folder), "Cannot flush folder: " + describeSystemError(error));
}

} // namespace tessel::cli
