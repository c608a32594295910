#include "tessel/VMDKFileReference.h"

#include "tessel/CVMDKLowLevelFileStream.h"

namespace tessel {

namespace {

bool isWindowsDrivePath(const String& reference) {
    if (reference.getLength() <= 2)
        return false;
    const wchar_t letter = reference[0];
    return ((letter >= L'a' && letter <= L'z') || (letter >= L'A' && letter <= L'Z')) &&
           reference[1] == L':' && (reference[2] == L'/' || reference[2] == L'\\');
}

bool isURI(const String& reference) {
    const int colon = reference.Find(L':');
    if (colon <= 0)
        return false;
    const String scheme = reference.Left(colon);
    return !scheme.Contains("/") && !scheme.Contains("\\");
}

CURI pathReferenceToURI(const String& reference) {
    CURI uri =
        reference.Contains("\\") ? CURI(CWindowsPath(reference), false) : CURI(CUnixPath(reference), false);
    if (uri.isAbsolute())
        return uri;
    return CURI(String(), uri.getPath(), uri.getHost(), uri.getUserInfo(), uri.getPort(), uri.getQuery(),
                uri.getFragment());
}

} // namespace

CURI vmdkFileReferenceToURI(const CURI& baseURI, const String& reference) {
    CURI uri;
    if (isWindowsDrivePath(reference))
        uri = CURI(CWindowsPath(reference), false);
    else if (isURI(reference))
        uri = CURI(reference);
    else
        uri = pathReferenceToURI(reference);
    if (!uri.isAbsolute())
        uri = baseURI << uri;
    return uri.toNormalized();
}

P<IIOStream> openVMDKFileStream(IFileSystem* fileSystem, const CURI& uri, IIOStream::Access access) {
    return new CVMDKLowLevelFileStream(fileSystem, uri, access);
}

P<IIOStream> openExistingVMDKFileStream(IFileSystem* fileSystem, const CURI& uri, IIOStream::Access access) {
    // Opening a missing file for reading fails with the file system's own error.
    // A link that leads nowhere is there, but not its file.
    if (access != IIOStream::Access_Read &&
        (!fileSystem->fileExists(uri) || !fileSystem->fileExists(fileSystem->followLinks(uri))))
        fileSystem->openFile(uri, IIOStream::Access_Read);
    return openVMDKFileStream(fileSystem, uri, access);
}

} // namespace tessel
