#pragma once

#include "lum/IInStream.h"

namespace lum {

/// Reads little-endian numbers from a stream. It keeps no bytes of its own: the stream may be moved
/// and read by others between two calls. Holds a reference to the stream.
class TESSEL_EXPORT CDataInStream {
public:
    /// `stream` is kept.
    explicit CDataInStream(IInStream* stream) : m_stream(stream) {}

    /// Throws (all that read): as IInStream::read.
    uint8 readUInt8();
    /// Two bytes.
    uint16 readUInt16();
    /// Four bytes.
    uint32 readUInt32();
    /// Eight bytes.
    uint64 readUInt64();
    /// `count` bytes as they stand.
    void read(void* buffer, int count) { m_stream->read(buffer, count); }

    /// The stream's position in bytes.
    int64 getPosition() const { return m_stream->getPosition(); }
    /// The stream's length in bytes.
    int64 getLength() const { return m_stream->getLength(); }
    /// Moves the stream, in bytes from its start. Throws: as IStreamBase::seek.
    void seek(int64 position) { m_stream->seek(position); }
    /// The stream itself.
    IInStream& getStream() const noexcept { return *m_stream; }

private:
    P<IInStream> m_stream;
};

} // namespace lum
