#include "lum/CDataOutStream.h"

#include "lum/LittleEndian.h"

namespace lum {

namespace {

template <class T>
void writeNumber(IOutStream& stream, T value) {
    unsigned char bytes[sizeof(T)];
    storeLittleEndian(bytes, value);
    stream.write(bytes, sizeof bytes);
}

} // namespace

void CDataOutStream::writeUInt8(uint8 value) {
    writeNumber(*m_stream, value);
}
void CDataOutStream::writeUInt16(uint16 value) {
    writeNumber(*m_stream, value);
}
void CDataOutStream::writeUInt32(uint32 value) {
    writeNumber(*m_stream, value);
}
void CDataOutStream::writeUInt64(uint64 value) {
    writeNumber(*m_stream, value);
}

} // namespace lum
