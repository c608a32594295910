#include "lum/CNativeFileSystem.h"

#include "foundation/lum/CFileStream.h"
#include "foundation/lum/NativeFiles.h"
#include "foundation/lum/StreamHelpers.h"

namespace lum {

CNativeFileSystem::CNativeFileSystem(bool waitForMedium) : m_waitForMedium(waitForMedium) {}

P<IIOStream> CNativeFileSystem::openFile(const CURI& uri, IIOStream::Access access) {
    const P<COpenFile> file = openNativeFile(uriToNativePath(uri), uri, access, m_waitForMedium);
    return new CFileStream(file.get(), access);
}

bool CNativeFileSystem::fileExists(const CURI& uri) {
    return nativeFileExists(uriToNativePath(uri), uri);
}

void CNativeFileSystem::deleteFile(const CURI& uri, bool ignoreMissing) {
    deleteNativeFile(uriToNativePath(uri), uri, ignoreMissing);
}

bool CNativeFileSystem::isFileOfStream(const CURI& uri, IIOStream& stream) {
    const auto* const fileStream = dynamic_cast<const CFileStream*>(&stream);
    if (!fileStream)
        throwForeignStream("CNativeFileSystem::isFileOfStream", uri);
    return isNativeFileAt(uriToNativePath(uri), uri, fileStream->getFile());
}

CURI CNativeFileSystem::followLinks(const CURI& uri) {
    return nativePathToURI(followNativeLinks(uriToNativePath(uri), uri)).toNormalized();
}

} // namespace lum
