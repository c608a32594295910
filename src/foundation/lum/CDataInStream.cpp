#include "lum/CDataInStream.h"

#include "lum/LittleEndian.h"

namespace lum {

namespace {

template <class T>
T readNumber(IInStream& stream) {
    unsigned char bytes[sizeof(T)];
    stream.read(bytes, sizeof bytes);
    return loadLittleEndian<T>(bytes);
}

} // namespace

uint8 CDataInStream::readUInt8() {
    return readNumber<uint8>(*m_stream);
}
uint16 CDataInStream::readUInt16() {
    return readNumber<uint16>(*m_stream);
}
uint32 CDataInStream::readUInt32() {
    return readNumber<uint32>(*m_stream);
}
uint64 CDataInStream::readUInt64() {
    return readNumber<uint64>(*m_stream);
}

} // namespace lum
