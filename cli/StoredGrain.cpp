#include "StoredGrain.h"

#include "Errors.h"
#include "lum/LittleEndian.h"
#include "tessel/CVMDKDataPreparer.h"

namespace tessel::cli {

namespace {

/// Where the head tells how long the stream is.
constexpr int lengthOffset = 8;
/// Two bytes before the deflate data of a stream (RFC 1950), the checksum behind them.
constexpr int streamHeadSize = 2;
constexpr int checksumSize = 4;
constexpr int adlerModulus = 65521;

bool isStreamHead(const unsigned char* bytes) {
    const bool isDeflate = (bytes[0] & 0x0F) == 8;
    const bool hasDictionary = (bytes[1] & 0x20) != 0;
    return isDeflate && !hasDictionary && (bytes[0] * 256 + bytes[1]) % 31 == 0;
}

/// The Adler-32 checksum of so many zeros, as it stands in a stream: the most significant byte first.
bool isChecksumOfZeros(const unsigned char* bytes, int64 count) {
    const int64 high = count % adlerModulus;
    return bytes[0] == high >> 8 && bytes[1] == (high & 0xFF) && bytes[2] == 0 && bytes[3] == 1;
}

} // namespace

bool mayPassAsStored(const TBuffer<unsigned char>& record, int64 grainSizeBytes, int64 mostBytes) {
    constexpr int headSize = CVMDKDataPreparer::recordHeadSize;
    if (record.getUsed() > mostBytes || record.getUsed() < headSize + streamHeadSize + checksumSize)
        return false;
    const int64 length = loadLittleEndian<uint32>(record.getData() + lengthOffset);
    if (length < streamHeadSize + checksumSize || length > record.getUsed() - headSize)
        return false;
    const unsigned char* const stream = record.getData() + headSize;
    return isStreamHead(stream) && !isChecksumOfZeros(stream + length - checksumSize, grainSizeBytes);
}

void verifyIsRecordOf(const std::string& name, int64 position, const TBuffer<unsigned char>& record) {
    const bool isWhole = record.getUsed() >= CVMDKDataPreparer::recordHeadSize;
    if (!isWhole ||
        loadLittleEndian<uint64>(record.getData()) != static_cast<uint64>(position / vmdkSectorSize))
        throw CFailure(name, "The grain at byte " + std::to_string(position) +
                                 " holds another grain's record; it stays as it is (tessel check " + name +
                                 " tells more)");
}

} // namespace tessel::cli
