#pragma once

#include "foundation/lum/COpenFile.h"
#include "lum/CError.h"
#include "lum/IIOStream.h"

#include <memory>

namespace lum {

/// The stream that the file systems of this library hand out: it checks every call in the same way and
/// leaves the transfers to an open file, which it owns. Nothing is buffered.
class CFileStream : public CBase, public IIOStream {
public:
    CFileStream(COpenFile* file, Access access);
    ~CFileStream() override;
    CFileStream(const CFileStream&) = delete;
    CFileStream& operator=(const CFileStream&) = delete;

    /// The file below. Throws: CIOError 10 when it is closed.
    COpenFile& getFile() const;

    int64 getLength() const override;
    int64 getPosition() const override;
    CURI getURI() override;
    void seek(int64 position) override;
    P<IStreamLock> lockRange(int64 start, int64 length, LockType type) override;
    void close() override;

    void read(void* buffer, int count) override;
    int readLax(void* buffer, int count) override;
    int readAvailable(void* buffer, int count) override;
    bool waitReadable(int timeoutMs) const override;
    bool isEndOfStream() const override;
    int isEndOfStream_NonBlocking() const override;

    void write(const void* data, int size, IWriteBarrier* barrier = nullptr) override;
    void writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                         IWriteBarrier* barrier = nullptr) override;
    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* parent) override;
    void flush() override;
    void setLength(int64 length) override;

private:
    void writeToFile(const void* data, int size);

    P<COpenFile> m_file;
    CURI m_uri;
    bool m_mayWrite;
    int64 m_position = 0;
    /// The first failure of a write since the last flush.
    std::unique_ptr<CError> m_writeFailure;
};

} // namespace lum
