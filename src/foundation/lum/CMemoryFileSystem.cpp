#include "lum/CMemoryFileSystem.h"

#include "foundation/lum/CFileStream.h"
#include "foundation/lum/CMemoryFile.h"
#include "foundation/lum/StreamHelpers.h"
#include "lum/CFileSystemError.h"

namespace lum {

namespace {

/// What the files are found by.
String makeKey(const CURI& uri) {
    return uri.toNormalized().toString(false);
}

[[noreturn]] void throwNotFound(const char* tried, const CURI& uri) {
    throw CFileSystemError(
        CFileSystemError::Problem_NotFound,
        CError(String(tried) + ": No such file or directory", String(), -1, makeStreamProps(uri)));
}

} // namespace

struct CMemoryFileSystem::Impl {
    struct Entry {
        CURI uri;
        P<CMemoryFile> file;
    };

    std::mutex mutex;
    TMap<String, Entry> files;
};

CMemoryFileSystem::CMemoryFileSystem() : m_impl(std::make_unique<Impl>()) {}

CMemoryFileSystem::~CMemoryFileSystem() = default;

P<IIOStream> CMemoryFileSystem::openFile(const CURI& uri, IIOStream::Access access) {
    const String key = makeKey(uri);
    const std::lock_guard guard(m_impl->mutex);
    P<CMemoryFile> file;
    if (const auto found = m_impl->files.find(key); found != m_impl->files.end())
        file = found->second.file;
    else if (access == IIOStream::Access_ReadWrite && !uri.isEmpty())
        file = new CMemoryFile;
    else
        throwNotFound("Cannot open file", uri);

    P<IIOStream> stream(new CFileStream(P<COpenFile>(new COpenMemoryFile(file.get(), uri)).get(), access));
    m_impl->files.try_emplace(key, Impl::Entry{uri.toNormalized(), file});
    return stream;
}

bool CMemoryFileSystem::fileExists(const CURI& uri) {
    const String key = makeKey(uri);
    const std::lock_guard guard(m_impl->mutex);
    return m_impl->files.contains(key);
}

void CMemoryFileSystem::deleteFile(const CURI& uri, bool ignoreMissing) {
    const String key = makeKey(uri);
    const std::lock_guard guard(m_impl->mutex);
    if (m_impl->files.erase(key) == 0 && !ignoreMissing)
        throwNotFound("Cannot delete file", uri);
}

bool CMemoryFileSystem::isFileOfStream(const CURI& uri, IIOStream& stream) {
    const auto* const fileStream = dynamic_cast<const CFileStream*>(&stream);
    const auto* const file =
        fileStream ? dynamic_cast<const COpenMemoryFile*>(&fileStream->getFile()) : nullptr;
    if (!file)
        throwForeignStream("CMemoryFileSystem::isFileOfStream", uri);
    const String key = makeKey(uri);
    const std::lock_guard guard(m_impl->mutex);
    const auto found = m_impl->files.find(key);
    return found != m_impl->files.end() && found->second.file.get() == file->getMemoryFile();
}

TArray<CURI> CMemoryFileSystem::listFiles() const {
    const std::lock_guard guard(m_impl->mutex);
    TArray<CURI> uris;
    for (const auto& [key, entry] : m_impl->files)
        uris.push_back(entry.uri);
    return uris;
}

} // namespace lum
