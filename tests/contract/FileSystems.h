#pragma once

#include "lum/IFileSystem.h"

#include <functional>
#include <memory>
#include <ostream>
#include <vector>

namespace tessel::test {

/// A file system with an empty folder for a test.
struct FileSystemUnderTest {
    /// What the file system stands on: it goes last.
    std::shared_ptr<void> owner;
    lum::P<lum::IFileSystem> fileSystem;
    lum::CURI folder;
    /// A name with as many characters that mean something in a URI as the file system lets a name have.
    const wchar_t* strangeName = L"a#b?c";
};

/// One of the file systems that keep the contract of IFileSystem.
struct FileSystemKind {
    const char* name;
    std::function<FileSystemUnderTest()> make;
};

const std::vector<FileSystemKind>& getFileSystemKinds();

/// See FileSystemUnderTest, for the files of this computer.
const wchar_t* getStrangeNativeName();

inline void PrintTo(const FileSystemKind& kind, std::ostream* out) {
    *out << kind.name;
}

} // namespace tessel::test
