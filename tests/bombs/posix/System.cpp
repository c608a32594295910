#include "../System.h"

#include <malloc.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

#if defined(__SANITIZE_ADDRESS__)
#define TESSEL_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TESSEL_TEST_SANITIZED 1
#endif
#endif

namespace tessel::test {

using lum::int64;

#ifdef TESSEL_TEST_SANITIZED

void limitAddressSpace(int64) {}
void unlimitAddressSpace() noexcept {}

#else

namespace {

rlim_t g_oldLimit = RLIM_INFINITY;

lum::uint64 measureAddressSpace() {
    std::ifstream file("/proc/self/statm");
    lum::uint64 pages = 0;
    file >> pages;
    return pages * static_cast<lum::uint64>(::sysconf(_SC_PAGESIZE));
}

} // namespace

void limitAddressSpace(int64 more) {
    struct rlimit limit = {};
    ::malloc_trim(0);
    if (::getrlimit(RLIMIT_AS, &limit) != 0)
        throw std::runtime_error("The limit on address space cannot be read");
    g_oldLimit = limit.rlim_cur;
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, measureAddressSpace() + static_cast<lum::uint64>(more));
    if (::setrlimit(RLIMIT_AS, &limit) != 0)
        throw std::runtime_error("The limit on address space cannot be set");
}

void unlimitAddressSpace() noexcept {
    struct rlimit limit = {};
    ::getrlimit(RLIMIT_AS, &limit);
    limit.rlim_cur = g_oldLimit;
    ::setrlimit(RLIMIT_AS, &limit);
}

#endif

std::size_t getBlockSize(void* block) noexcept {
    return ::malloc_usable_size(block);
}

int64 getStoredSize(const std::filesystem::path& path) {
    struct stat status = {};
    ::stat(path.c_str(), &status);
    return int64{status.st_blocks} * 512;
}

void setFileLength(const std::filesystem::path& path, int64 length) {
    std::filesystem::resize_file(path, static_cast<std::uintmax_t>(length));
}

void allowHoles(const std::filesystem::path&) {}

} // namespace tessel::test
