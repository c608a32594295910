#include "tessel/CVMDKSparseExtentHeader.h"

#include "format/RecordField.h"
#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"
#include "lum/LittleEndian.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace tessel {

namespace {

constexpr int recordSize = 512;

// The record, field by field. The encryption extension takes the start of the reserved tail.
constexpr URecordField fieldMagic{0, 4};
constexpr URecordField fieldVersion{4, 4};
constexpr URecordField fieldFlags{8, 4};
constexpr URecordField fieldCapacity{12, 8};
constexpr URecordField fieldGrainSize{20, 8};
constexpr URecordField fieldDescriptorOffset{28, 8};
constexpr URecordField fieldDescriptorSize{36, 8};
constexpr URecordField fieldGrainTableEntryCount{44, 4};
constexpr URecordField fieldRedundantDirectoryOffset{48, 8};
constexpr URecordField fieldDirectoryOffset{56, 8};
constexpr URecordField fieldOverhead{64, 8};
constexpr URecordField fieldUncleanShutdown{72, 1};
constexpr URecordField fieldLineEndTest{73, 4};
constexpr URecordField fieldCompressAlgorithm{77, 2};
constexpr URecordField fieldPad{79, 433};
static_assert(fieldsCover(recordSize, fieldMagic, fieldVersion, fieldFlags, fieldCapacity, fieldGrainSize,
                          fieldDescriptorOffset, fieldDescriptorSize, fieldGrainTableEntryCount,
                          fieldRedundantDirectoryOffset, fieldDirectoryOffset, fieldOverhead,
                          fieldUncleanShutdown, fieldLineEndTest, fieldCompressAlgorithm, fieldPad));

constexpr URecordField fieldEncryptionAlgorithm{79, 2};
constexpr URecordField fieldEncryptionKeyHashAlgorithm{81, 2};
constexpr URecordField fieldEncryptionKeyHashSize{83, 2};
constexpr URecordField fieldEncryptionTail{85, 427}; // the key hash, then reserved bytes
static_assert(fieldsCover(recordSize, URecordField{0, fieldPad.offset}, fieldEncryptionAlgorithm,
                          fieldEncryptionKeyHashAlgorithm, fieldEncryptionKeyHashSize, fieldEncryptionTail));
static_assert(fieldEncryptionTail.width == CVMDKSparseExtentHeader::maxEncryptionKeyHashSize);

constexpr unsigned char lineEndTest[] = {0x0A, 0x20, 0x0D, 0x0A};
static_assert(sizeof lineEndTest == fieldLineEndTest.width);

using Record = std::array<unsigned char, recordSize>;

template <class T>
void get(const Record& record, URecordField field, T& value) {
    value = loadLittleEndian<T>(record.data() + field.offset);
}

template <class T>
void put(Record& record, URecordField field, T value) {
    storeLittleEndian<T>(record.data() + field.offset, value);
}

} // namespace

CVMDKSparseExtentHeader::CVMDKSparseExtentHeader() : m_pad(fieldPad.width) {}

void CVMDKSparseExtentHeader::setEncryptionKeyHash(const TBuffer<unsigned char>& hash) {
    if (hash.getUsed() > maxEncryptionKeyHashSize)
        throw CInvalidArgError("CVMDKSparseExtentHeader::setEncryptionKeyHash",
                               "Key hash is too long for a VMDK sparse header: " + toDecimal(hash.getUsed()) +
                                   " bytes (at most " + toDecimal(maxEncryptionKeyHashSize) + ").");
    m_encryptionKeyHash = hash;
}

void CVMDKSparseExtentHeader::load(CDataInStream& in) {
    Record record;
    const auto readFields = [&](int begin, int end) { in.read(record.data() + begin, end - begin); };
    readFields(fieldMagic.offset, fieldMagic.end());
    uint32 magic = 0;
    get(record, fieldMagic, magic);
    if (magic != magicNumber && magic != magicNumberEncrypted)
        throw CIOError(CIOError::Code_BadFormat, "Invalid magic number in VMDK sparse header",
                       CProps().add("num", magic));
    m_encryptionExtensionEnabled = magic == magicNumberEncrypted;
    readFields(fieldVersion.offset, fieldLineEndTest.end());
    get(record, fieldVersion, m_version);
    get(record, fieldFlags, m_flags);
    get(record, fieldCapacity, m_capacity);
    get(record, fieldGrainSize, m_grainSize);
    get(record, fieldDescriptorOffset, m_descriptorOffset);
    get(record, fieldDescriptorSize, m_descriptorSize);
    get(record, fieldGrainTableEntryCount, m_grainTableEntryCount);
    get(record, fieldRedundantDirectoryOffset, m_redundantDirectoryOffset);
    get(record, fieldDirectoryOffset, m_directoryOffset);
    get(record, fieldOverhead, m_overhead);
    m_uncleanShutdown = record[fieldUncleanShutdown.offset] != 0;
    if ((m_flags & Flag_RedundantDirectory) == 0)
        m_redundantDirectoryOffset = 0;
    if ((m_flags & Flag_LineEndTest) != 0 &&
        std::memcmp(record.data() + fieldLineEndTest.offset, lineEndTest, sizeof lineEndTest) != 0)
        throw CIOError(CIOError::Code_BadFormat, "VMDK image is corrupted (probably by having been "
                                                 "transferred in FTP ASCII mode).");
    // Only now, since altered line ends also change the length of the file.
    readFields(fieldCompressAlgorithm.offset, recordSize);
    get(record, fieldCompressAlgorithm, m_compressAlgorithm);

    if (!m_encryptionExtensionEnabled) {
        m_encryptionAlgorithm = 0;
        m_encryptionKeyHashAlgorithm = 0;
        m_encryptionKeyHash.setUsed(0);
        m_pad.assign(record.data() + fieldPad.offset, fieldPad.width);
        return;
    }
    get(record, fieldEncryptionAlgorithm, m_encryptionAlgorithm);
    get(record, fieldEncryptionKeyHashAlgorithm, m_encryptionKeyHashAlgorithm);
    uint16 hashSize = 0;
    get(record, fieldEncryptionKeyHashSize, hashSize);
    if (hashSize > maxEncryptionKeyHashSize)
        throw CIOError(CIOError::Code_BadFormat,
                       "VMDK sparse header has an invalid encryptionKeyHashSize: " + toDecimal(hashSize) +
                           " (allowed: 0 to " + toDecimal(maxEncryptionKeyHashSize) + ").",
                       CProps().add("encryptionKeyHashSize", hashSize));
    const unsigned char* const tail = record.data() + fieldEncryptionTail.offset;
    m_encryptionKeyHash.assign(tail, hashSize);
    m_pad.assign(tail + hashSize, fieldEncryptionTail.width - hashSize);
}

void CVMDKSparseExtentHeader::store(CDataOutStream& out) {
    Record record{};
    put(record, fieldMagic, m_encryptionExtensionEnabled ? magicNumberEncrypted : magicNumber);
    put(record, fieldVersion, m_version);
    put(record, fieldFlags, m_flags);
    put(record, fieldCapacity, m_capacity);
    put(record, fieldGrainSize, m_grainSize);
    put(record, fieldDescriptorOffset, m_descriptorOffset);
    put(record, fieldDescriptorSize, m_descriptorSize);
    put(record, fieldGrainTableEntryCount, m_grainTableEntryCount);
    put(record, fieldRedundantDirectoryOffset, m_redundantDirectoryOffset);
    put(record, fieldDirectoryOffset, m_directoryOffset);
    put(record, fieldOverhead, m_overhead);
    record[fieldUncleanShutdown.offset] = m_uncleanShutdown ? 1 : 0;
    std::copy_n(lineEndTest, sizeof lineEndTest, record.data() + fieldLineEndTest.offset);
    put(record, fieldCompressAlgorithm, m_compressAlgorithm);

    int padOffset = fieldPad.offset;
    if (m_encryptionExtensionEnabled) {
        const auto hashSize = static_cast<uint16>(m_encryptionKeyHash.getUsed());
        put(record, fieldEncryptionAlgorithm, m_encryptionAlgorithm);
        put(record, fieldEncryptionKeyHashAlgorithm, m_encryptionKeyHashAlgorithm);
        put(record, fieldEncryptionKeyHashSize, hashSize);
        std::copy_n(m_encryptionKeyHash.getData(), hashSize, record.data() + fieldEncryptionTail.offset);
        padOffset = fieldEncryptionTail.offset + hashSize;
    }
    // A layout with a larger tail than the one that was loaded has zeros in what it gains.
    const int64 kept = std::min<int64>(m_pad.getUsed(), recordSize - padOffset);
    std::copy_n(m_pad.getData(), kept, record.data() + padOffset);
    m_pad.assign(record.data() + padOffset, recordSize - padOffset);
    out.write(record.data(), recordSize);
}

} // namespace tessel
