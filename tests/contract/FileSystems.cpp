#include "FileSystems.h"

#include "CFaultFileSystem.h"
#include "CTemporaryFolder.h"
#include "lum/CMemoryFileSystem.h"
#include "lum/CNativeFileSystem.h"

using namespace lum;

namespace tessel::test {

namespace {

FileSystemUnderTest makeNative(bool waitForMedium) {
    const auto folder = std::make_shared<CTemporaryFolder>();
    return {folder, P<IFileSystem>(new CNativeFileSystem(waitForMedium)), folder->getURI(),
            getStrangeNativeName()};
}

FileSystemUnderTest makeMemory() {
    return {nullptr, P<IFileSystem>(new CMemoryFileSystem), CURI(String("memory:/folder"))};
}

/// Tests that use faults rely on it: without rules it is as good as what it stands on.
FileSystemUnderTest makeFaultless() {
    FileSystemUnderTest result = makeMemory();
    result.fileSystem = new CFaultFileSystem(result.fileSystem.get());
    return result;
}

} // namespace

const std::vector<FileSystemKind>& getFileSystemKinds() {
    static const std::vector<FileSystemKind> kinds = {
        {"Native", [] { return makeNative(true); }},
        {"NativeWithoutWaiting", [] { return makeNative(false); }},
        {"Memory", makeMemory},
        {"Faultless", makeFaultless},
    };
    return kinds;
}

} // namespace tessel::test
