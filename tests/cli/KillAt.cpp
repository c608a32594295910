// Loaded before a program's libraries: kills the program at one of its changes to files, counted from 1, as
// TESSEL_KILL_AT says. With TESSEL_NO_LINKS no file gets a second name, as on a file system that has no such
// thing, and with TESSEL_NO_LISTS no access control list. Changes are what gives or takes names and, without
// TESSEL_ONLY_NAMES, what writes at a position.

#include <dlfcn.h>
#include <sys/syscall.h>
#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>

namespace {

std::atomic<int> g_count{0};

void countChange() {
    const char* const wanted = std::getenv("TESSEL_KILL_AT");
    if (wanted && ++g_count == std::atoi(wanted))
        std::raise(SIGKILL);
}

void countWrite() {
    if (!std::getenv("TESSEL_ONLY_NAMES"))
        countChange();
}

template <class Function>
Function* findNext(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
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
