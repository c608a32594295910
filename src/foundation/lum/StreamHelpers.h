#pragma once

#include "lum/CProps.h"
#include "lum/CURI.h"
#include "lum/IOutStream.h"

namespace lum {

// What all streams check in the same way, so that they fail in the same way.

/// The parameter "uri", unless the stream is on no file.
CProps makeStreamProps(const CURI& uri);

/// Throws CIOError 10.
[[noreturn]] void throwStreamClosed(const CURI& uri);
/// Throws CIOError 4 with "position" and "bytesToRead".
[[noreturn]] void throwUnexpectedEnd(const CURI& uri, int64 position, int bytesToRead);
/// Throws CInvalidArgError: `source` was asked about a stream of another file system.
[[noreturn]] void throwForeignStream(const char* source, const CURI& uri);

/// Throws CIOError 7 with "position" when it is negative.
void verifyPosition(const CURI& uri, int64 position);
/// Throws CInvalidArgError when `count` is negative.
void verifyCount(const char* source, const CURI& uri, int64 count);
/// Throws CInvalidArgError when `length` is negative.
void verifyLength(const char* source, const CURI& uri, int64 length);
/// Throws CIOError 8 with "position" and "bytesToWrite" when the end would not fit 64 bits.
void verifyEndOfWrite(const CURI& uri, int64 position, int bytesToWrite);

/// `count`, or as much of it as there can be between `position` and the last possible one.
int limitToPositions(int64 position, int count) noexcept;

/// writeKeepBuffer by means of write.
void writeSlice(IOutStream& stream, const TConstBufferSlice<unsigned char>& data, IWriteBarrier* barrier);

} // namespace lum
