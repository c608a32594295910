#pragma once

#include "lum/CBase.h"
#include "lum/IFileSystem.h"
#include "tessel/types.h"

#include <functional>

namespace tessel::cli {

/// Another file system's files, for calls of the library that open many and tell nobody how far they are.
/// Opening one throws CInterrupted when the user wants no more: once, so that tidying up is not in its way.
class CInterruptibleFiles : public CBase, public IFileSystem {
public:
    /// `onOpen` is called after each file that is opened; it may be empty.
    explicit CInterruptibleFiles(IFileSystem* files, std::function<void()> onOpen = {})
        : m_files(files), m_onOpen(std::move(onOpen)) {}

    /// From now on nothing is interrupted, and `onOpen` is not called.
    void stop();

    P<IIOStream> openFile(const CURI& uri, IIOStream::Access access) override;
    bool fileExists(const CURI& uri) override { return m_files->fileExists(uri); }
    void deleteFile(const CURI& uri, bool ignoreMissing) override { m_files->deleteFile(uri, ignoreMissing); }
    bool isFileOfStream(const CURI& uri, IIOStream& stream) override {
        return m_files->isFileOfStream(uri, stream);
    }
    CURI followLinks(const CURI& uri) override { return m_files->followLinks(uri); }

private:
    P<IFileSystem> m_files;
    std::function<void()> m_onOpen;
    bool m_isStopped = false;
};

} // namespace tessel::cli
