#include "CSystemCallFaults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>

namespace tessel::test {

namespace {

thread_local CSystemCallFaults* active = nullptr;

} // namespace

CSystemCallFaults::CSystemCallFaults(std::vector<Fault> faults) : m_faults(std::move(faults)) {
    active = this;
}

CSystemCallFaults::~CSystemCallFaults() {
    active = nullptr;
}

int CSystemCallFaults::count(Call call) const {
    return static_cast<int>(std::count(m_calls.begin(), m_calls.end(), call));
}

const CSystemCallFaults::Fault* CSystemCallFaults::next(Call call) {
    if (!active)
        return nullptr;
    active->m_calls.push_back(call);
    for (Fault& fault : active->m_faults) {
        if (fault.call != call || fault.times == 0)
            continue;
        fault.times -= fault.times > 0;
        return &fault;
    }
    return nullptr;
}

} // namespace tessel::test

using tessel::test::CSystemCallFaults;
using Fault = CSystemCallFaults::Fault;

namespace {

/// The function that was replaced.
template <class Function>
Function* original(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

/// True, with errno set, when the call is to fail.
bool fails(const Fault* fault) {
    if (!fault || fault->error == 0)
        return false;
    errno = fault->error;
    return true;
}

size_t limited(const Fault* fault, size_t size) {
    return fault ? std::min(size, static_cast<size_t>(fault->limit)) : size;
}

} // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    static auto* const next = original<int(const char*, int, ...)>("open");
    return fails(CSystemCallFaults::next(CSystemCallFaults::Open)) ? -1 : next(path, flags, mode);
}

int close(int file) {
    static auto* const next = original<int(int)>("close");
    const int result = next(file); // it closes in any case, as the system does
    return fails(CSystemCallFaults::next(CSystemCallFaults::Close)) ? -1 : result;
}

int fstat(int file, struct stat* status) noexcept {
    static auto* const next = original<int(int, struct stat*)>("fstat");
    const Fault* const fault = CSystemCallFaults::next(CSystemCallFaults::Stat);
    if (fails(fault))
        return -1;
    const int result = next(file, status);
    if (fault && fault->asBlockDevice)
        status->st_mode = (status->st_mode & ~static_cast<mode_t>(S_IFMT)) | S_IFBLK;
    return result;
}

off_t lseek(int file, off_t offset, int whence) noexcept {
    static auto* const next = original<off_t(int, off_t, int)>("lseek");
    return fails(CSystemCallFaults::next(CSystemCallFaults::Seek)) ? -1 : next(file, offset, whence);
}

ssize_t pread(int file, void* buffer, size_t size, off_t offset) {
    static auto* const next = original<ssize_t(int, void*, size_t, off_t)>("pread");
    const Fault* const fault = CSystemCallFaults::next(CSystemCallFaults::Read);
    return fails(fault) ? -1 : next(file, buffer, limited(fault, size), offset);
}

ssize_t pwrite(int file, const void* data, size_t size, off_t offset) {
    static auto* const next = original<ssize_t(int, const void*, size_t, off_t)>("pwrite");
    const Fault* const fault = CSystemCallFaults::next(CSystemCallFaults::Write);
    return fails(fault) ? -1 : next(file, data, limited(fault, size), offset);
}

int fdatasync(int file) {
    static auto* const next = original<int(int)>("fdatasync");
    return fails(CSystemCallFaults::next(CSystemCallFaults::SyncData)) ? -1 : next(file);
}

int fsync(int file) {
    static auto* const next = original<int(int)>("fsync");
    return fails(CSystemCallFaults::next(CSystemCallFaults::Sync)) ? -1 : next(file);
}

int ftruncate(int file, off_t length) noexcept {
    static auto* const next = original<int(int, off_t)>("ftruncate");
    return fails(CSystemCallFaults::next(CSystemCallFaults::Truncate)) ? -1 : next(file, length);
}

char* realpath(const char* path, char* resolved) noexcept {
    static auto* const next = original<char*(const char*, char*)>("realpath");
    return fails(CSystemCallFaults::next(CSystemCallFaults::RealPath)) ? nullptr : next(path, resolved);
}

int fcntl(int file, int command, ...) {
    // Every argument there is fits a pointer.
    std::va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    static auto* const next = original<int(int, int, ...)>("fcntl");
    const Fault* fault = nullptr;
    if (command == F_OFD_SETLK)
        fault = CSystemCallFaults::next(CSystemCallFaults::SetLock);
    else if (command == F_SETFL)
        fault = CSystemCallFaults::next(CSystemCallFaults::SetFlags);
    return fails(fault) ? -1 : next(file, command, argument);
}

} // extern "C"
