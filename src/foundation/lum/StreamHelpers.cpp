#include "foundation/lum/StreamHelpers.h"

#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"

#include <algorithm>

namespace lum {

CProps makeStreamProps(const CURI& uri) {
    CProps props;
    if (!uri.isEmpty())
        props.add("uri", uri.toString(true));
    return props;
}

void throwStreamClosed(const CURI& uri) {
    throw CIOError(CIOError::Code_Closed, "Stream is closed.", makeStreamProps(uri));
}

void throwUnexpectedEnd(const CURI& uri, int64 position, int bytesToRead) {
    throw CIOError(CIOError::Code_UnexpectedEnd, "Unexpected end of data.",
                   makeStreamProps(uri).add("position", position).add("bytesToRead", bytesToRead));
}

void throwForeignStream(const char* source, const CURI& uri) {
    throw CInvalidArgError(source, "The stream was not opened by this file system.", makeStreamProps(uri));
}

void verifyPosition(const CURI& uri, int64 position) {
    if (position < 0)
        throw CIOError(CIOError::Code_BadSeek, "Invalid stream position.",
                       makeStreamProps(uri).add("position", position));
}

void verifyCount(const char* source, const CURI& uri, int64 count) {
    if (count < 0)
        throw CInvalidArgError(source, "Invalid count: " + toDecimal(count), makeStreamProps(uri));
}

void verifyLength(const char* source, const CURI& uri, int64 length) {
    if (length < 0)
        throw CInvalidArgError(source, "Invalid length: " + toDecimal(length), makeStreamProps(uri));
}

void verifyEndOfWrite(const CURI& uri, int64 position, int bytesToWrite) {
    if (bytesToWrite > INT64_MAX - position)
        throw CIOError(CIOError::Code_NoSpace, "Write exceeds the largest possible length.",
                       makeStreamProps(uri).add("position", position).add("bytesToWrite", bytesToWrite));
}

int limitToPositions(int64 position, int count) noexcept {
    return static_cast<int>(std::min<int64>(count, INT64_MAX - position));
}

void writeSlice(IOutStream& stream, const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier) {
    constexpr int64 largestPiece = 1 << 30;
    for (int64 done = 0; done < data.getLength();) {
        const int64 size = std::min(data.getLength() - done, largestPiece);
        stream.write(data.getData() + done, static_cast<int>(size), barrier);
        done += size;
    }
}

} // namespace lum
