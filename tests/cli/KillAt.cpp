// Loaded before a program's libraries: kills the program at one of its changes to files, counted from 1, as
// TESSEL_KILL_AT says; with TESSEL_INTERRUPT it gets SIGINT there and goes on. With TESSEL_NO_LINKS no file
// gets a second name, as on a file system that has no such thing, and with TESSEL_NO_LISTS no access control
// list. Changes are what gives or takes names and, without TESSEL_ONLY_NAMES, what writes at a position; with
// TESSEL_COUNT_NEW also what may make a file or a folder. A program that ends by itself writes their number
// into the file TESSEL_COUNT_TO. With TESSEL_SLOW_READS each read at a position, or of standard input, takes
// so many microseconds at least.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace {

std::atomic<int> g_count{0};

void countChange() {
    const int count = ++g_count;
    const char* const wanted = std::getenv("TESSEL_KILL_AT");
    if (wanted && count == std::atoi(wanted))
        std::raise(std::getenv("TESSEL_INTERRUPT") ? SIGINT : SIGKILL);
}

void countNew() {
    if (std::getenv("TESSEL_COUNT_NEW"))
        countChange();
}

void countWrite() {
    if (!std::getenv("TESSEL_ONLY_NAMES"))
        countChange();
}

void slowDown() {
    if (const char* const microseconds = std::getenv("TESSEL_SLOW_READS"))
        ::usleep(static_cast<useconds_t>(std::atoi(microseconds)));
}

[[gnu::destructor]] void tellCount() {
    const char* const name = std::getenv("TESSEL_COUNT_TO");
    std::FILE* const file = name ? std::fopen(name, "w") : nullptr;
    if (!file)
        return;
    std::fprintf(file, "%d\n", g_count.load());
    std::fclose(file);
}

template <class Function>
Function* findNext(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

/// With the permissions that follow `flags` where a file may be made.
template <class Function>
int openNext(const char* function, const char* path, int flags, va_list list) {
    auto* const next = findNext<Function>(function);
    if ((flags & O_CREAT) == 0)
        return next(path, flags);
    const mode_t mode = va_arg(list, mode_t);
    countNew();
    return next(path, flags, mode);
}

} // namespace

extern "C" {

int link(const char* from, const char* to) noexcept {
    static auto* const next = findNext<int(const char*, const char*)>("link");
    if (std::getenv("TESSEL_NO_LINKS")) {
        errno = EPERM;
        return -1;
    }
    countChange();
    return next(from, to);
}

int rename(const char* from, const char* to) noexcept {
    static auto* const next = findNext<int(const char*, const char*)>("rename");
    countChange();
    return next(from, to);
}

int remove(const char* path) noexcept {
    static auto* const next = findNext<int(const char*)>("remove");
    countChange();
    return next(path);
}

int unlink(const char* path) noexcept {
    static auto* const next = findNext<int(const char*)>("unlink");
    countChange();
    return next(path);
}

#if __has_include(<linux/xattr.h>) // only there are they of these types
int fsetxattr(int file, const char* name, const void* value, size_t size, int flags) noexcept {
    static auto* const next = findNext<int(int, const char*, const void*, size_t, int)>("fsetxattr");
    if (std::getenv("TESSEL_NO_LISTS")) {
        errno = EPERM;
        return -1;
    }
    return next(file, name, value, size, flags);
}

int fremovexattr(int file, const char* name) noexcept {
    static auto* const next = findNext<int(int, const char*)>("fremovexattr");
    if (std::getenv("TESSEL_NO_LISTS")) {
        errno = EPERM;
        return -1;
    }
    return next(file, name);
}
#endif

int open(const char* path, int flags, ...) {
    va_list list;
    va_start(list, flags);
    const int file = openNext<int(const char*, int, ...)>("open", path, flags, list);
    va_end(list);
    return file;
}

int open64(const char* path, int flags, ...) {
    va_list list;
    va_start(list, flags);
    const int file = openNext<int(const char*, int, ...)>("open64", path, flags, list);
    va_end(list);
    return file;
}

int mkdir(const char* path, mode_t mode) noexcept {
    static auto* const next = findNext<int(const char*, mode_t)>("mkdir");
    countNew();
    return next(path, mode);
}

ssize_t read(int file, void* data, size_t size) {
    static auto* const next = findNext<ssize_t(int, void*, size_t)>("read");
    if (file == STDIN_FILENO)
        slowDown();
    return next(file, data, size);
}

ssize_t pread(int file, void* data, size_t size, off_t position) {
    static auto* const next = findNext<ssize_t(int, void*, size_t, off_t)>("pread");
    slowDown();
    return next(file, data, size, position);
}

ssize_t pread64(int file, void* data, size_t size, off64_t position) {
    static auto* const next = findNext<ssize_t(int, void*, size_t, off64_t)>("pread64");
    slowDown();
    return next(file, data, size, position);
}

ssize_t pwrite(int file, const void* data, size_t size, off_t position) {
    static auto* const next = findNext<ssize_t(int, const void*, size_t, off_t)>("pwrite");
    countWrite();
    return next(file, data, size, position);
}

ssize_t pwrite64(int file, const void* data, size_t size, off64_t position) {
    static auto* const next = findNext<ssize_t(int, const void*, size_t, off64_t)>("pwrite64");
    countWrite();
    return next(file, data, size, position);
}

long syscall(long number, ...) noexcept {
    static auto* const next = findNext<long(long, ...)>("syscall");
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments)
        argument = va_arg(list, long);
    va_end(list);
#ifdef SYS_renameat2
    if (number == SYS_renameat2)
        countChange();
#endif
    return next(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}

} // extern "C"
