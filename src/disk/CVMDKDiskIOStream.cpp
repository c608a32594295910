#include "tessel/CVMDKDiskIOStream.h"

#include "foundation/lum/StreamHelpers.h"
#include "lum/CDummyWriteBarrier.h"
#include "lum/CFileSystemError.h"
#include "lum/CIOError.h"
#include "lum/Logging.h"

#include <algorithm>
#include <climits>

namespace tessel {

CVMDKDiskIOStream::CVMDKDiskIOStream(CVMDKDisk* disk) {
    construct(disk);
}

CVMDKDiskIOStream::CVMDKDiskIOStream(IFileSystem* fileSystem, const CURI& mainFileURI,
                                     IIOStream::Access access, const String& password) {
    const P<CVMDKDisk> disk(new CVMDKDisk(fileSystem, mainFileURI, access, password, -1, nullptr, nullptr));
    construct(disk.get());
}

CVMDKDiskIOStream::CVMDKDiskIOStream(const CVMDKDiskIOStream& other)
    : CBase(other), m_disk(other.m_disk), m_uri(other.m_uri) {}

CVMDKDiskIOStream& CVMDKDiskIOStream::operator=(const CVMDKDiskIOStream& other) {
    m_disk = other.m_disk;
    m_uri = other.m_uri;
    return *this;
}

CVMDKDiskIOStream::~CVMDKDiskIOStream() {
    try {
        m_disk = nullptr;
    } catch (const std::exception& error) {
        onExceptionInDestructorIgnored("tessel::CVMDKDiskIOStream", error, true);
    }
}

void CVMDKDiskIOStream::construct(CVMDKDisk* disk) {
    m_disk = disk;
    m_uri = disk->getMainFileURI();
}

CVMDKDisk& CVMDKDiskIOStream::disk() const {
    if (!m_disk)
        throw CIOError(CIOError::Code_Closed);
    return *m_disk;
}

int64 CVMDKDiskIOStream::getLength() const {
    return disk().getSizeBytes();
}

int64 CVMDKDiskIOStream::getPosition() const {
    return disk().getPosition();
}

CURI CVMDKDiskIOStream::getURI() {
    return m_uri;
}

void CVMDKDiskIOStream::seek(int64 position) {
    disk().seek(position);
}

P<IStreamLock> CVMDKDiskIOStream::lockRange(int64, int64, LockType) {
    throw CFileSystemError(CFileSystemError::Problem_NotSupported,
                           CError("VMDK Disk I/O stream does not support lockRange."));
}

void CVMDKDiskIOStream::close() {
    m_disk = nullptr;
}

void CVMDKDiskIOStream::read(void* buffer, int count) {
    CVMDKDisk& source = disk();
    verifyCount("IInStream::read", m_uri, count);
    source.read(buffer, count);
}

int CVMDKDiskIOStream::readLax(void* buffer, int count) {
    const auto available = static_cast<int>(std::min<int64>(count, getLength() - getPosition()));
    read(buffer, available);
    return available;
}

int CVMDKDiskIOStream::readAvailable(void* buffer, int count) {
    return readLax(buffer, count);
}

bool CVMDKDiskIOStream::waitReadable(int) const {
    disk();
    return true;
}

bool CVMDKDiskIOStream::isEndOfStream() const {
    return getLength() <= getPosition();
}

int CVMDKDiskIOStream::isEndOfStream_NonBlocking() const {
    return isEndOfStream() ? 1 : 0;
}

void CVMDKDiskIOStream::write(const void* data, int size, IWriteBarrier*) {
    CVMDKDisk& target = disk();
    verifyCount("IOutStream::write", m_uri, size);
    target.write(data, size);
}

void CVMDKDiskIOStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& data,
                                        IWriteBarrier* barrier) {
    if (data.getLength() <= INT_MAX)
        write(data.getData(), static_cast<int>(data.getLength()), barrier);
    else
        writeSlice(*this, data, barrier);
}

P<IWriteBarrier> CVMDKDiskIOStream::createWriteBarrier(IWriteBarrier*) {
    flush();
    return new CDummyWriteBarrier;
}

void CVMDKDiskIOStream::flush() {
    disk().flushChanges();
}

void CVMDKDiskIOStream::setLength(int64) {
    disk();
    throw CIOError(CIOError::Code_LengthNotSettable);
}

} // namespace tessel
