#pragma once

#include "lum/IInStream.h"

namespace lum {

/// Reads little-endian numbers from a stream. It keeps no bytes of its own: the stream may be moved
/// and read by others between two calls. Holds a reference to the stream.
class TESSEL_EXPORT CDataInStream {
public:
    explicit CDataInStream(IInStream* stream) : m_stream(stream) {}

    /// Throws (all that read): as IInStream::read.
    uint8 readUInt8();
    uint16 readUInt16();
    uint32 readUInt32();
    uint64 readUInt64();
    void read(void* buffer, int count) { m_stream->read(buffer, count); }

    int64 getPosition() const { return m_stream->getPosition(); }
    int64 getLength() const { return m_stream->getLength(); }
    void seek(int64 position) { m_stream->seek(position); }
    IInStream& getStream() const noexcept { return *m_stream; }

private:
    P<IInStream> m_stream;
};

} // namespace lum
