#pragma once

#include "lum/IOutStream.h"

namespace lum {

/// Writes little-endian numbers to a stream. It keeps no bytes of its own: the stream may be moved and
/// written by others between two calls. Holds a reference to the stream.
class TESSEL_EXPORT CDataOutStream {
public:
    explicit CDataOutStream(IOutStream* stream) : m_stream(stream) {}

    /// Throws (all that write): as IOutStream::write.
    void writeUInt8(uint8 value);
    void writeUInt16(uint16 value);
    void writeUInt32(uint32 value);
    void writeUInt64(uint64 value);
    void writeInt64(int64 value) { writeUInt64(static_cast<uint64>(value)); }
    void write(const void* data, int size) { m_stream->write(data, size, nullptr); }

    int64 getPosition() const { return m_stream->getPosition(); }
    int64 getLength() const { return m_stream->getLength(); }
    void seek(int64 position) { m_stream->seek(position); }
    IOutStream& getStream() const noexcept { return *m_stream; }

private:
    P<IOutStream> m_stream;
};

} // namespace lum
