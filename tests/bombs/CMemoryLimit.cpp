#include "CMemoryLimit.h"

#include "System.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string_view>

namespace {

using lum::int64;

int64 g_used = 0;
int64 g_peak = 0;
int64 g_most = INT64_MAX;
bool g_wasExceeded = false;

constexpr std::size_t mostSecrets = 8;
const std::vector<std::string>* g_secrets = nullptr;
int64 g_blocks = 0;
std::array<int64, mostSecrets> g_finds = {};

void* take(std::size_t size) {
    if (static_cast<int64>(std::min<std::size_t>(size, INT64_MAX / 2)) > g_most - g_used) {
        g_wasExceeded = true;
        throw std::bad_alloc();
    }
    void* const block = std::malloc(std::max<std::size_t>(size, 1));
    if (!block) {
        g_wasExceeded = true;
        throw std::bad_alloc();
    }
    g_used += static_cast<int64>(tessel::test::getBlockSize(block));
    g_peak = std::max(g_peak, g_used);
    return block;
}

void giveBack(void* block) noexcept {
    if (!block)
        return;
    const std::size_t size = tessel::test::getBlockSize(block);
    g_used -= static_cast<int64>(size);
    if (g_secrets) {
        ++g_blocks;
        const std::string_view contents(static_cast<const char*>(block), size);
        for (std::size_t i = 0; i < g_secrets->size(); ++i)
            if (contents.find((*g_secrets)[i]) != std::string_view::npos)
                ++g_finds[i];
    }
    std::free(block);
}

} // namespace

// The whole program allocates through these, the library included. The forms that are not named here end in
// these.

void* operator new(std::size_t size) {
    return take(size);
}

void* operator new[](std::size_t size) {
    return take(size);
}

void operator delete(void* block) noexcept {
    giveBack(block);
}

void operator delete[](void* block) noexcept {
    giveBack(block);
}

void operator delete(void* block, std::size_t) noexcept {
    giveBack(block);
}

void operator delete[](void* block, std::size_t) noexcept {
    giveBack(block);
}

namespace tessel::test {

CMemoryLimit::CMemoryLimit(int64 mostBytes) {
    // What the allocator holds back for later is no part of the bound.
    constexpr int64 slack = 8 << 20;
    limitAddressSpace(mostBytes + slack);
    g_peak = g_used;
    g_most = g_used + mostBytes;
    g_wasExceeded = false;
    m_start = g_used;
}

CMemoryLimit::~CMemoryLimit() {
    g_most = INT64_MAX;
    unlimitAddressSpace();
}

int64 CMemoryLimit::getPeak() const noexcept {
    return g_peak - m_start;
}

bool CMemoryLimit::wasExceeded() const noexcept {
    return g_wasExceeded;
}

CFreedMemorySearch::CFreedMemorySearch(std::vector<std::string> secrets) : m_secrets(std::move(secrets)) {
    if (m_secrets.size() > mostSecrets)
        throw std::invalid_argument("Too many secrets");
    g_blocks = 0;
    g_finds.fill(0);
    g_secrets = &m_secrets;
}

CFreedMemorySearch::~CFreedMemorySearch() {
    g_secrets = nullptr;
}

int64 CFreedMemorySearch::getBlockCount() const noexcept {
    return g_blocks;
}

int64 CFreedMemorySearch::getFindCount(std::size_t secret) const {
    return g_finds.at(secret);
}

} // namespace tessel::test
