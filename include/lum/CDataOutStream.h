#pragma once

#include "lum/IOutStream.h"

namespace lum {

/// Writes little-endian numbers to a stream. It keeps no bytes of its own: the stream may be moved and
/// written by others between two calls. Holds a reference to the stream.
class TESSEL_EXPORT CDataOutStream {
public:
    /// `stream` is kept.
    explicit CDataOutStream(IOutStream* stream) : m_stream(stream) {}

    /// Throws (all that write): as IOutStream::write.
    void writeUInt8(uint8 value);
    /// Two bytes.
    void writeUInt16(uint16 value);
    /// Four bytes.
    void writeUInt32(uint32 value);
    /// Eight bytes.
    void writeUInt64(uint64 value);
    /// Eight bytes, two's complement.
    void writeInt64(int64 value) { writeUInt64(static_cast<uint64>(value)); }
    /// `size` bytes as they stand.
    void write(const void* data, int size) { m_stream->write(data, size, nullptr); }

    /// The stream's position in bytes.
    int64 getPosition() const { return m_stream->getPosition(); }
    /// The stream's length in bytes.
    int64 getLength() const { return m_stream->getLength(); }
    /// Moves the stream, in bytes from its start. Throws: as IStreamBase::seek.
    void seek(int64 position) { m_stream->seek(position); }
    /// The stream itself.
    IOutStream& getStream() const noexcept { return *m_stream; }

private:
    P<IOutStream> m_stream;
};

} // namespace lum
