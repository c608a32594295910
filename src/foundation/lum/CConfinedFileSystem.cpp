#include "lum/CConfinedFileSystem.h"

#include "lum/CFileSystemError.h"

#include <algorithm>

namespace lum {

namespace {

/// Both in normal form.
bool isBelow(const CURI& folder, const CURI& uri) {
    if (folder.getScheme() != uri.getScheme() || folder.getAuthority() != uri.getAuthority())
        return false;
    String prefix = folder.getPath();
    if (!prefix.EndsWith("/"))
        prefix += L'/';
    return uri.getPath().StartsWith(prefix);
}

bool isBelowAny(const TArray<CURI>& folders, const CURI& uri) {
    return std::any_of(folders.begin(), folders.end(),
                       [&uri](const CURI& folder) { return isBelow(folder, uri); });
}

} // namespace

CConfinedFileSystem::CConfinedFileSystem(IFileSystem* fileSystem, const CURI& folder)
    : m_fileSystem(fileSystem) {
    allow(folder);
}

void CConfinedFileSystem::allow(const CURI& folder) {
    const CURI real = m_fileSystem->followLinks(folder);
    const CURI name = folder.toNormalized();
    if (std::find(m_folders.begin(), m_folders.end(), name) == m_folders.end())
        m_folders.push_back(name);
    m_realFolders.push_back(real);
}

bool CConfinedFileSystem::isAllowed(const CURI& uri) {
    // By name first: what is refused there is not even looked up.
    const CURI name = uri.toNormalized();
    if (!isBelowAny(m_folders, name) && !isBelowAny(m_realFolders, name))
        return false;
    return isBelowAny(m_realFolders, m_fileSystem->followLinks(uri));
}

void CConfinedFileSystem::verifyAllowed(const CURI& uri) {
    if (isAllowed(uri))
        return;
    String folders;
    for (const CURI& folder : m_folders)
        folders += (folders.isEmpty() ? String() : String(", ")) + folder.toString(true);
    throw CFileSystemError(CFileSystemError::Problem_AccessDenied,
                           CError("The file is outside the folders that may be used.", String(), -1,
                                  CProps().add("uri", uri.toString(true)).add("allowed", folders)));
}

P<IIOStream> CConfinedFileSystem::openFile(const CURI& uri, IIOStream::Access access) {
    verifyAllowed(uri);
    return m_fileSystem->openFile(uri, access);
}

bool CConfinedFileSystem::fileExists(const CURI& uri) {
    verifyAllowed(uri);
    return m_fileSystem->fileExists(uri);
}

void CConfinedFileSystem::deleteFile(const CURI& uri, bool ignoreMissing) {
    verifyAllowed(uri);
    m_fileSystem->deleteFile(uri, ignoreMissing);
}

bool CConfinedFileSystem::isFileOfStream(const CURI& uri, IIOStream& stream) {
    verifyAllowed(uri);
    return m_fileSystem->isFileOfStream(uri, stream);
}

CURI CConfinedFileSystem::followLinks(const CURI& uri) {
    verifyAllowed(uri);
    return m_fileSystem->followLinks(uri);
}

} // namespace lum
