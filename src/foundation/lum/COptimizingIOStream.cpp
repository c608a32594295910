#include "lum/COptimizingIOStream.h"

#include "foundation/lum/StreamHelpers.h"
#include "lum/CIOError.h"
#include "lum/Logging.h"
#include "lum/Numbers.h"

#include <algorithm>
#include <cstring>

namespace lum {

namespace {

/// Transfers of this many bytes and more go past the buffers.
constexpr int largeTransfer = 32 * 1024;
/// What is read at once when small reads follow each other.
constexpr int readAhead = 64 * 1024;
/// A small read that follows none is lengthened to a multiple of this position.
constexpr int pageSize = 4096;
/// The most that is kept to be written.
constexpr int64 pendingLimit = 64 * 1024;

std::size_t toSize(int64 size) noexcept {
    return static_cast<std::size_t>(size);
}

} // namespace

COptimizingIOStream::COptimizingIOStream(IIOStream* stream)
    : m_stream(stream), m_uri(stream->getURI()), m_position(stream->getPosition()) {}

COptimizingIOStream::~COptimizingIOStream() {
    try {
        if (!m_stream)
            return;
        writePending();
        if (m_writeFailure)
            m_writeFailure->rethrow();
    } catch (const std::exception& error) {
        onExceptionInDestructorIgnored("lum::COptimizingIOStream", error, true);
    }
}

void COptimizingIOStream::verifyOpen() const {
    if (!m_stream)
        throwStreamClosed(m_uri);
}

int64 COptimizingIOStream::getPendingEnd() const noexcept {
    return m_pending.isEmpty() ? 0 : m_pendingStart + m_pending.getUsed();
}

int64 COptimizingIOStream::getLength() const {
    verifyOpen();
    return std::max(m_stream->getLength(), getPendingEnd());
}

int64 COptimizingIOStream::getPosition() const {
    verifyOpen();
    return m_position;
}

CURI COptimizingIOStream::getURI() {
    return m_uri;
}

void COptimizingIOStream::seek(int64 position) {
    verifyOpen();
    verifyPosition(m_uri, position);
    m_position = position;
}

P<IStreamLock> COptimizingIOStream::lockRange(int64 start, int64 length, LockType type) {
    verifyOpen();
    P<IStreamLock> lock = m_stream->lockRange(start, length, type);
    // Who had the range before may have changed it.
    m_readBuffer.setUsed(0);
    return lock;
}

void COptimizingIOStream::close() {
    if (!m_stream)
        return;
    try {
        writePending();
    } catch (const CError&) { // NOLINT(bugprone-empty-catch): it is remembered, and thrown below
    }
    m_pending = TBuffer<unsigned char>();
    m_readBuffer = TBuffer<unsigned char>();
    const std::unique_ptr<CError> failure = std::move(m_writeFailure);
    P<IIOStream> stream;
    stream.swap(m_stream);
    try {
        stream->close();
    } catch (const CError&) {
        if (!failure)
            throw;
    }
    if (failure)
        failure->rethrow();
}

void COptimizingIOStream::read(void* buffer, int count) {
    const int64 position = m_position;
    if (readLax(buffer, count) == count)
        return;
    m_position = position;
    throwUnexpectedEnd(m_uri, position, count);
}

int COptimizingIOStream::readLax(void* buffer, int count) {
    verifyOpen();
    verifyCount("IInStream::read", m_uri, count);
    const int limited = limitToPositions(m_position, count);
    if (limited == 0)
        return 0;
    const int done = readMerged(static_cast<unsigned char*>(buffer), limited);
    m_position += done;
    m_endOfLastRead = m_position;
    return done;
}

int COptimizingIOStream::readAvailable(void* buffer, int count) {
    return readLax(buffer, count);
}

bool COptimizingIOStream::waitReadable(int timeoutMs) const {
    verifyOpen();
    if (m_position < getPendingEnd() || isInReadBuffer(m_position))
        return true;
    m_stream->seek(m_position);
    return m_stream->waitReadable(timeoutMs);
}

bool COptimizingIOStream::isEndOfStream() const {
    return m_position >= getLength();
}

int COptimizingIOStream::isEndOfStream_NonBlocking() const {
    verifyOpen();
    if (m_position < getPendingEnd() || isInReadBuffer(m_position))
        return 0;
    m_stream->seek(m_position);
    return m_stream->isEndOfStream_NonBlocking();
}

/// Reads at the position: what is below, with what is pending laid over it.
int COptimizingIOStream::readMerged(unsigned char* target, int count) {
    const int64 end = m_position + count;
    const int64 pendingEnd = getPendingEnd();
    const bool allPending = m_pendingStart <= m_position && end <= pendingEnd;
    int done = allPending ? 0 : readBelow(target, count);
    if (pendingEnd <= m_position)
        return done;

    const int64 reach = std::min(end, pendingEnd);
    const int64 from = std::max(m_position, m_pendingStart);
    if (m_position + done < from && done < count) { // the gap before bytes that lengthen the file
        const int64 gapEnd = std::min(from, end);
        std::memset(target + done, 0, toSize(gapEnd - m_position - done));
        done = static_cast<int>(gapEnd - m_position);
    }
    if (from < reach) {
        std::memcpy(target + (from - m_position), m_pending.getData() + (from - m_pendingStart),
                    toSize(reach - from));
        done = std::max(done, static_cast<int>(reach - m_position));
    }
    return done;
}

/// Reads at the position what the stream below holds, by way of the buffer unless it is much.
int COptimizingIOStream::readBelow(unsigned char* target, int count) {
    int done = takeFromReadBuffer(m_position, target, count);
    const int rest = count - done;
    if (rest == 0)
        return done;
    const int64 position = m_position + done;
    if (rest >= largeTransfer) {
        m_stream->seek(position);
        return done + m_stream->readLax(target + done, rest);
    }
    fillReadBuffer(position, rest);
    return done + takeFromReadBuffer(position, target + done, rest);
}

bool COptimizingIOStream::isInReadBuffer(int64 position) const noexcept {
    return position >= m_readStart && position - m_readStart < m_readBuffer.getUsed();
}

int COptimizingIOStream::takeFromReadBuffer(int64 position, unsigned char* target, int count) noexcept {
    if (!isInReadBuffer(position))
        return 0;
    const int64 offset = position - m_readStart;
    const int64 size = std::min<int64>(count, m_readBuffer.getUsed() - offset);
    std::memcpy(target, m_readBuffer.getData() + offset, toSize(size));
    return static_cast<int>(size);
}

/// Reads at least `count` bytes into the buffer, if there are as many.
void COptimizingIOStream::fillReadBuffer(int64 position, int count) {
    int size = count;
    if (position <= INT64_MAX - readAhead)
        size = m_position == m_endOfLastRead
                   ? readAhead
                   : static_cast<int>(roundUp(position + count, pageSize) - position);
    m_readBuffer.setUsed(0);
    m_readBuffer.ensureAllocated(size);
    m_readStart = position;
    m_stream->seek(position);
    try {
        m_readBuffer.setUsed(m_stream->readLax(m_readBuffer.getData(), size));
    } catch (const CIOError&) {
        // A place that cannot be read must not cost what lies before it.
        if (size == count)
            throw;
        m_stream->seek(position);
        m_readBuffer.setUsed(m_stream->readLax(m_readBuffer.getData(), count));
    }
}

void COptimizingIOStream::write(const void* data, int size, IWriteBarrier* barrier) {
    verifyOpen();
    verifyCount("IOutStream::write", m_uri, size);
    verifyEndOfWrite(m_uri, m_position, size);
    if (size == 0)
        return;
    if (barrier || size >= largeTransfer) {
        writePending();
        writeBelow(m_position, data, size, barrier);
    } else {
        addToPending(data, size);
    }
    m_position += size;
}

void COptimizingIOStream::addToPending(const void* data, int size) {
    const bool joins = !m_pending.isEmpty() && m_position >= m_pendingStart &&
                       m_position <= getPendingEnd() && m_position + size - m_pendingStart <= pendingLimit;
    if (!joins)
        writePending();
    m_pending.ensureAllocated(pendingLimit);
    if (!joins)
        m_pendingStart = m_position;
    const int64 offset = m_position - m_pendingStart;
    m_pending.setUsed(std::max(m_pending.getUsed(), offset + size));
    std::memcpy(m_pending.getData() + offset, data, toSize(size));
}

void COptimizingIOStream::writePending() {
    if (m_pending.isEmpty())
        return;
    writeBelow(m_pendingStart, m_pending.getData(), static_cast<int>(m_pending.getUsed()), nullptr);
    m_pending.setUsed(0);
}

void COptimizingIOStream::writeBelow(int64 position, const void* data, int size, IWriteBarrier* barrier) {
    const int64 buffered = m_readBuffer.getUsed();
    const int64 from = std::max(position, m_readStart);
    const int64 to = std::min(position + size, m_readStart + buffered);
    // After a failure nobody knows what is below.
    if (from < to)
        m_readBuffer.setUsed(0);
    try {
        m_stream->seek(position);
        m_stream->write(data, size, barrier);
    } catch (const CError& error) {
        rememberFailure(error);
        throw;
    }
    if (from < to) {
        m_readBuffer.setUsed(buffered);
        std::memcpy(m_readBuffer.getData() + (from - m_readStart),
                    static_cast<const unsigned char*>(data) + (from - position), toSize(to - from));
    }
}

void COptimizingIOStream::rememberFailure(const CError& error) {
    if (!m_writeFailure)
        m_writeFailure = error.clone();
}

void COptimizingIOStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                                          IWriteBarrier* barrier) {
    verifyOpen();
    writeSlice(*this, data, barrier);
}

P<IWriteBarrier> COptimizingIOStream::createWriteBarrier(IWriteBarrier* parent) {
    verifyOpen();
    writePending();
    return m_stream->createWriteBarrier(parent);
}

void COptimizingIOStream::flush() {
    verifyOpen();
    try {
        writePending();
    } catch (const CError&) { // NOLINT(bugprone-empty-catch): it is remembered, and thrown below
    }
    const std::unique_ptr<CError> failure = std::move(m_writeFailure);
    try {
        m_stream->flush();
    } catch (const CError&) {
        if (!failure)
            throw;
    }
    if (failure)
        failure->rethrow();
}

void COptimizingIOStream::setLength(int64 length) {
    verifyOpen();
    verifyLength("IOutStream::setLength", m_uri, length);
    writePending();
    m_readBuffer.setUsed(0);
    m_stream->setLength(length);
}

int COptimizingIOStream::getPositionAlignment() const {
    return 1;
}

int COptimizingIOStream::getBufferAlignment() const {
    return 1;
}

int COptimizingIOStream::getBestPerformanceAlignment() const {
    return pageSize;
}

} // namespace lum
