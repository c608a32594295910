#include "foundation/lum/CFileStream.h"

#include "foundation/lum/StreamHelpers.h"
#include "lum/CDummyWriteBarrier.h"
#include "lum/CFileSystemError.h"
#include "lum/CIOError.h"
#include "lum/Logging.h"

namespace lum {

CFileStream::CFileStream(COpenFile* file, Access access)
    : m_file(file), m_uri(file->getURI()), m_mayWrite(access == Access_ReadWrite) {}

CFileStream::~CFileStream() {
    try {
        CFileStream::close();
    } catch (const std::exception& error) {
        onExceptionInDestructorIgnored("lum::CFileStream", error, true);
    }
}

COpenFile& CFileStream::getFile() const {
    if (!m_file)
        throwStreamClosed(m_uri);
    return *m_file;
}

int64 CFileStream::getLength() const {
    return getFile().getLength();
}

int64 CFileStream::getPosition() const {
    getFile();
    return m_position;
}

CURI CFileStream::getURI() {
    return m_uri;
}

void CFileStream::seek(int64 position) {
    getFile();
    verifyPosition(m_uri, position);
    m_position = position;
}

P<IStreamLock> CFileStream::lockRange(int64 start, int64 length, LockType type) {
    COpenFile& file = getFile();
    const bool exclusive = type == LockType_Exclusive;
    if (exclusive && !m_mayWrite)
        throw CFileSystemError(CFileSystemError::Problem_AccessDenied,
                               CError("Cannot lock file: It was opened for reading only.", String(), -1,
                                      makeStreamProps(m_uri).add("start", start).add("length", length)));
    return file.lockRange(start, length, exclusive);
}

void CFileStream::close() {
    if (!m_file)
        return;
    P<COpenFile> file;
    file.swap(m_file);
    const std::unique_ptr<CError> failure = std::move(m_writeFailure);
    try {
        file->close();
    } catch (const CError&) {
        if (!failure)
            throw;
    }
    if (failure)
        failure->rethrow();
}

void CFileStream::read(void* buffer, int count) {
    const int64 position = m_position;
    if (readLax(buffer, count) == count)
        return;
    m_position = position;
    throwUnexpectedEnd(m_uri, position, count);
}

int CFileStream::readLax(void* buffer, int count) {
    COpenFile& file = getFile();
    verifyCount("IInStream::read", m_uri, count);
    const int limited = limitToPositions(m_position, count);
    if (limited == 0)
        return 0;
    const int done = file.read(m_position, buffer, limited);
    m_position += done;
    return done;
}

int CFileStream::readAvailable(void* buffer, int count) {
    return readLax(buffer, count);
}

bool CFileStream::waitReadable(int) const {
    getFile();
    return true;
}

bool CFileStream::isEndOfStream() const {
    return m_position >= getLength();
}

int CFileStream::isEndOfStream_NonBlocking() const {
    return isEndOfStream() ? 1 : 0;
}

void CFileStream::write(const void* data, int size, IWriteBarrier*) {
    getFile();
    verifyCount("IOutStream::write", m_uri, size);
    try {
        writeToFile(data, size);
    } catch (const CError& error) {
        if (!m_writeFailure)
            m_writeFailure = error.clone();
        throw;
    }
    m_position += size;
}

void CFileStream::writeToFile(const void* data, int size) {
    if (!m_mayWrite)
        throw CIOError(CIOError::Code_WriteFailed, "Cannot write to file: It was opened for reading only.",
                       makeStreamProps(m_uri).add("position", m_position).add("bytesToWrite", size));
    verifyEndOfWrite(m_uri, m_position, size);
    if (size > 0)
        m_file->write(m_position, data, size);
}

void CFileStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier) {
    getFile();
    writeSlice(*this, data, barrier);
}

P<IWriteBarrier> CFileStream::createWriteBarrier(IWriteBarrier*) {
    getFile();
    return new CDummyWriteBarrier;
}

void CFileStream::flush() {
    COpenFile& file = getFile();
    const std::unique_ptr<CError> failure = std::move(m_writeFailure);
    if (m_mayWrite) {
        try {
            file.flush();
        } catch (const CError&) {
            if (!failure)
                throw;
        }
    }
    if (failure)
        failure->rethrow();
}

void CFileStream::setLength(int64 length) {
    COpenFile& file = getFile();
    verifyLength("IOutStream::setLength", m_uri, length);
    if (!m_mayWrite)
        throw CIOError(CIOError::Code_WriteFailed,
                       "Cannot change the length of the file: It was opened for reading only.",
                       makeStreamProps(m_uri).add("length", length));
    file.setLength(length);
}

} // namespace lum
