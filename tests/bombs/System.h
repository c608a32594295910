#pragma once

#include "lum/types.h"

#include <filesystem>

namespace tessel::test {

// What these tests need of the system.

/// How many bytes a block of malloc's can hold.
std::size_t getBlockSize(void* block) noexcept;

/// Lets the program have no more than `more` bytes of address space above those it has now, where the system
/// can and no sanitizer needs it. Throws: std::runtime_error when that should be possible and is not.
void limitAddressSpace(lum::int64 more);
/// As it was before limitAddressSpace().
void unlimitAddressSpace() noexcept;

/// The bytes that a file takes, without its holes.
lum::int64 getStoredSize(const std::filesystem::path& path);

/// Cuts a file, or lets it end with zeros, of which nothing is stored where that can be.
void setFileLength(const std::filesystem::path& path, lum::int64 length);

/// Lets what nobody writes to this file take no room, where that has to be asked for.
void allowHoles(const std::filesystem::path& path);

} // namespace tessel::test
