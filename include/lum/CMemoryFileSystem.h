#pragma once

#include "lum/CBase.h"
#include "lum/IFileSystem.h"

#include <memory>

namespace lum {

/// Files in memory, named by URIs of any scheme (compared in normal form). Folders need not be made.
/// Locks exclude each other as those of real files do. Pieces of 64 KiB that were never written take
/// no memory, so that a file may be far longer than what it holds. A deleted file lives on for the
/// streams that are open on it. Safe to use from several threads, a stream by one at a time.
class TESSEL_EXPORT CMemoryFileSystem : public CBase, public IFileSystem {
public:
    CMemoryFileSystem();
    ~CMemoryFileSystem() override;
    CMemoryFileSystem(const CMemoryFileSystem&) = delete;
    CMemoryFileSystem& operator=(const CMemoryFileSystem&) = delete;

    P<IIOStream> openFile(const CURI& uri, IIOStream::Access access) override;
    bool fileExists(const CURI& uri) override;
    void deleteFile(const CURI& uri, bool ignoreMissing) override;
    bool isFileOfStream(const CURI& uri, IIOStream& stream) override;

    /// The URIs of all files, in normal form and in order.
    TArray<CURI> listFiles() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace lum
