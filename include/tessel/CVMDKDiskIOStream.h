#pragma once

#include "lum/IIOStream.h"
#include "tessel/CVMDKDisk.h"

namespace tessel {

/// A disk's contents as a stream, for code that is written against streams. Everything goes to the disk
/// as it is; only the length cannot be changed and ranges cannot be locked. After close() everything but
/// getURI(), close() and lockRange() throws CIOError 10. Copies share the disk, and with it the position.
class TESSEL_EXPORT CVMDKDiskIOStream : public CBase, public IIOStream {
public:
    /// The disk is kept.
    explicit CVMDKDiskIOStream(CVMDKDisk* disk);
    /// Opens the disk, with compression level 1 and its own cache. Throws: as CVMDKDisk.
    CVMDKDiskIOStream(IFileSystem* fileSystem, const CURI& mainFileURI, IIOStream::Access access,
                      const String& password);
    /// Shares the disk.
    CVMDKDiskIOStream(const CVMDKDiskIOStream& other);
    /// Lets go of its disk and shares the other's.
    CVMDKDiskIOStream& operator=(const CVMDKDiskIOStream& other);
    ~CVMDKDiskIOStream() override;

    int64 getLength() const override;
    int64 getPosition() const override;
    /// The disk's main file.
    CURI getURI() override;
    /// Throws: CIOError 7 outside 0 to the disk's size.
    void seek(int64 position) override;
    /// Always throws: CFileSystemError, Problem_NotSupported.
    P<IStreamLock> lockRange(int64 start, int64 length, LockType type) override;
    /// Lets go of the disk, which flushes when nobody else holds it. Unlike other streams' this tells nobody
    /// of a failure but onExceptionInDestructorIgnored: whoever must know calls flush() before.
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
    /// Flushes, which is all the order that is needed.
    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* parent) override;
    void flush() override;
    /// Always throws: CIOError 13.
    void setLength(int64 length) override;

protected:
    /// Takes the disk; the constructors' common part.
    void construct(CVMDKDisk* disk);

private:
    CVMDKDisk& disk() const;

    P<CVMDKDisk> m_disk;
    CURI m_uri;
};

} // namespace tessel
