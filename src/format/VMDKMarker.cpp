#include "tessel/VMDKMarker.h"

#include "format/RecordField.h"
#include "lum/CInvalidArgError.h"
#include "lum/LittleEndian.h"
#include "lum/Numbers.h"

#include <algorithm>

namespace tessel {

namespace {

// A metadata marker. A size other than 0 would make it the head of a compressed grain.
constexpr URecordField fieldValue{0, 8};
constexpr URecordField fieldSize{8, 4};
constexpr URecordField fieldType{12, 4};
constexpr URecordField fieldZeros{16, 496};
static_assert(fieldsCover(vmdkSectorSize, fieldValue, fieldSize, fieldType, fieldZeros));

} // namespace

bool isVMDKMarker(const unsigned char* sector, VMDKMarkerID type, int64* value) {
    if (value)
        *value = 0;
    if (loadLittleEndian<uint32>(sector + fieldSize.offset) != 0 ||
        loadLittleEndian<uint32>(sector + fieldType.offset) != type ||
        !isZeroMemory(sector + fieldZeros.offset, fieldZeros.width))
        return false;
    if (value)
        *value = static_cast<int64>(loadLittleEndian<uint64>(sector + fieldValue.offset));
    return true;
}

void writeVMDKMarker(CDataOutStream& out, VMDKMarkerID type, int64 value,
                     const TBuffer<unsigned char>& zeros) {
    if (zeros.getUsed() < fieldZeros.width)
        throw CInvalidArgError("writeVMDKMarker",
                               "The buffer of zeros is too small: " + toDecimal(zeros.getUsed()) +
                                   " bytes (at least " + toDecimal(fieldZeros.width) + ").");
    out.writeInt64(value);
    out.writeUInt32(0);
    out.writeUInt32(type);
    out.write(zeros.getData(), fieldZeros.width);
}

void vmdkWritePadding(IOutStream& out, int count, const TBuffer<unsigned char>& padding) {
    if (count > 0 && padding.isEmpty())
        throw CInvalidArgError("vmdkWritePadding", "The buffer of padding is empty.");
    while (count > 0) {
        const int piece = static_cast<int>(std::min<int64>(count, padding.getUsed()));
        out.write(padding.getData(), piece, nullptr);
        count -= piece;
    }
}

int64 getStreamPositionVMDKSectors(IStreamBase& stream) {
    const int64 position = stream.getPosition();
    if (position % vmdkSectorSize != 0)
        throw CError("Internal error in tessel::getStreamPositionVMDKSectors. Stream position should be a "
                     "multiple of 512 but it is not.",
                     String(), -1,
                     CProps().add("uri", stream.getURI().toString(true)).add("position", position));
    return position / vmdkSectorSize;
}

} // namespace tessel
