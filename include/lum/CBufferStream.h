#pragma once

#include "lum/CBase.h"
#include "lum/IIOStream.h"
#include "lum/TBuffer.h"

namespace lum {

/// A stream over a memory buffer, whose used part is the stream's contents.
class TESSEL_EXPORT CBufferStream : public CBase, public IIOStream {
public:
    /// `buffer` is borrowed and must outlive the stream. When writing needs more memory, the
    /// allocation grows at least by the factor `growth` (1.0: just what is needed).
    CBufferStream(TBuffer<unsigned char>* buffer, double growth);

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
    TBuffer<unsigned char>& buffer() const;

    TBuffer<unsigned char>* m_buffer;
    double m_growth;
    int64 m_position = 0;
};

} // namespace lum
