#pragma once

#include "lum/CBase.h"
#include "lum/CError.h"
#include "lum/IAlignedInStream.h"
#include "lum/IIOStream.h"
#include "lum/TBuffer.h"

#include <memory>

namespace lum {

/// Saves calls to the stream below it: small reads are served from a buffer, which is read ahead when
/// they follow each other; small writes next to each other are joined. Transfers of 32 KiB and more
/// pass straight through. At most 256 KiB of memory.
///
/// Writes reach the stream below in the order in which they were made, joined ones as one. Reads, the
/// length and the position always tell of the writes before them. A joined write that fails stays
/// pending and is tried again; whichever write failed, the next flush() throws its error.
///
/// A write that names a barrier passes straight through, behind everything before it. A read that the
/// system refuses when reading ahead is tried again without.
///
/// close() writes what is pending, closes the stream below in any case, and throws what failed since
/// the last flush(). The destructor does not close the stream below; it writes what is pending and
/// reports a failure (onExceptionInDestructorIgnored).
class TESSEL_EXPORT COptimizingIOStream : public CBase, public IIOStream, public IAlignedInStream {
public:
    /// Takes over the use of `stream`: nobody else reads, writes or moves it meanwhile. What others write
    /// to the file by streams of their own may be missed, unless lockRange() keeps them apart: it
    /// forgets what was read before.
    explicit COptimizingIOStream(IIOStream* stream);
    ~COptimizingIOStream() override;
    COptimizingIOStream(const COptimizingIOStream&) = delete;
    COptimizingIOStream& operator=(const COptimizingIOStream&) = delete;

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

    int getPositionAlignment() const override;
    int getBufferAlignment() const override;
    int getBestPerformanceAlignment() const override;

private:
    void verifyOpen() const;

    int readMerged(unsigned char* target, int count);
    int readBelow(unsigned char* target, int count);
    bool isInReadBuffer(int64 position) const noexcept;
    int takeFromReadBuffer(int64 position, unsigned char* target, int count) noexcept;
    void fillReadBuffer(int64 position, int count);

    /// Where the pending bytes end; 0 when there are none.
    int64 getPendingEnd() const noexcept;
    void addToPending(const void* data, int size);
    void writePending();
    void writeBelow(int64 position, const void* data, int size, IWriteBarrier* barrier);
    void rememberFailure(const CError& error);

    P<IIOStream> m_stream;
    CURI m_uri;
    int64 m_position = 0;
    int64 m_endOfLastRead = -1;
    /// Bytes of the file at m_readStart, as they are below.
    TBuffer<unsigned char> m_readBuffer;
    int64 m_readStart = 0;
    /// Bytes that belong at m_pendingStart and are not below yet.
    TBuffer<unsigned char> m_pending;
    int64 m_pendingStart = 0;
    /// The first failure of a write since the last flush.
    std::unique_ptr<CError> m_writeFailure;
};

} // namespace lum
