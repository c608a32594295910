#include "lum/CBufferStream.h"

#include "foundation/lum/StreamHelpers.h"
#include "lum/CDummyWriteBarrier.h"
#include "lum/CFileSystemError.h"

#include <algorithm>
#include <cstring>

namespace lum {

namespace {

/// Makes room for `length` bytes. A factor that leads beyond all memory is not followed.
void grow(TBuffer<unsigned char>& buffer, int64 length, double factor) {
    if (length <= buffer.getAllocated())
        return;
    constexpr double limit = 1LL << 62;
    const double grown = static_cast<double>(buffer.getAllocated()) * factor;
    const bool follow = grown > static_cast<double>(length) && grown < limit;
    buffer.ensureAllocated(follow ? static_cast<int64>(grown) : length);
}

/// Zeros what came back into use: it holds what it held before.
void zero(TBuffer<unsigned char>& buffer, int64 start, int64 end) noexcept {
    if (end > start)
        std::memset(buffer.getData() + start, 0, static_cast<std::size_t>(end - start));
}

} // namespace

CBufferStream::CBufferStream(TBuffer<unsigned char>* buffer, double growth)
    : m_buffer(buffer), m_growth(growth) {}

TBuffer<unsigned char>& CBufferStream::buffer() const {
    if (!m_buffer)
        throwStreamClosed(CURI());
    return *m_buffer;
}

int64 CBufferStream::getLength() const {
    return buffer().getUsed();
}

int64 CBufferStream::getPosition() const {
    buffer();
    return m_position;
}

CURI CBufferStream::getURI() {
    return CURI();
}

void CBufferStream::seek(int64 position) {
    buffer();
    verifyPosition(CURI(), position);
    m_position = position;
}

P<IStreamLock> CBufferStream::lockRange(int64 start, int64 length, LockType) {
    buffer();
    throw CFileSystemError(CFileSystemError::Problem_NotSupported,
                           CError("Cannot lock a stream in memory.", String(), -1,
                                  CProps().add("start", start).add("length", length)));
}

void CBufferStream::close() {
    m_buffer = nullptr;
}

void CBufferStream::read(void* target, int count) {
    const int64 position = m_position;
    if (readLax(target, count) == count)
        return;
    m_position = position;
    throwUnexpectedEnd(CURI(), position, count);
}

int CBufferStream::readLax(void* target, int count) {
    const TBuffer<unsigned char>& source = buffer();
    verifyCount("IInStream::read", CURI(), count);
    const int available = static_cast<int>(std::clamp<int64>(source.getUsed() - m_position, 0, count));
    if (available > 0)
        std::memcpy(target, source.getData() + m_position, static_cast<std::size_t>(available));
    m_position += available;
    return available;
}

int CBufferStream::readAvailable(void* target, int count) {
    return readLax(target, count);
}

bool CBufferStream::waitReadable(int) const {
    buffer();
    return true;
}

bool CBufferStream::isEndOfStream() const {
    return m_position >= getLength();
}

int CBufferStream::isEndOfStream_NonBlocking() const {
    return isEndOfStream() ? 1 : 0;
}

void CBufferStream::write(const void* data, int size, IWriteBarrier*) {
    TBuffer<unsigned char>& target = buffer();
    verifyCount("IOutStream::write", CURI(), size);
    verifyEndOfWrite(CURI(), m_position, size);
    if (size == 0)
        return;
    const int64 old = target.getUsed();
    const int64 end = m_position + size;
    grow(target, end, m_growth);
    target.setUsed(std::max(old, end));
    zero(target, old, m_position);
    std::memcpy(target.getData() + m_position, data, static_cast<std::size_t>(size));
    m_position = end;
}

void CBufferStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier) {
    buffer();
    writeSlice(*this, data, barrier);
}

P<IWriteBarrier> CBufferStream::createWriteBarrier(IWriteBarrier*) {
    buffer();
    return new CDummyWriteBarrier;
}

void CBufferStream::flush() {
    buffer();
}

void CBufferStream::setLength(int64 length) {
    TBuffer<unsigned char>& target = buffer();
    verifyLength("IOutStream::setLength", CURI(), length);
    const int64 old = target.getUsed();
    grow(target, length, m_growth);
    target.setUsed(length);
    zero(target, old, length);
}

} // namespace lum
