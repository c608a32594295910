#include "tessel/CVMDKGrain.h"

#include "grain/GrainRecord.h"
#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"
#include "lum/Logging.h"
#include "lum/Numbers.h"

#include <algorithm>

namespace tessel {

namespace {

/// Records of more bytes are read only after a look at their end.
constexpr int64 largestUnprovenRecord = 1048576;

/// The slot size that the stored form of a grain needs at worst, encryption included.
int64 calcWorstCaseSlotSize(const CVMDKDataPreparer& preparer, bool compressed, sigil::ICipher* cipher) {
    const int64 plainSectors = preparer.getWorstCaseGrainSizeSectors();
    if (!cipher)
        return plainSectors;
    const int64 head = compressed ? CVMDKDataPreparer::recordHeadSize : 0;
    const int64 payload = roundUp(plainSectors * vmdkSectorSize - head, cipher->getBlockSizeBytes());
    return divideRoundingUp(head + payload, vmdkSectorSize);
}

} // namespace

CVMDKGrain::CVMDKGrain(IIOStream* stream, IIOStream::Access access, int64 grainSizeSectors,
                       IVMDKGrainAllocator* allocator, bool compressed, int compressionLevel,
                       IVMDKDataProvider* fallbackDataProvider, sigil::ICipher* cipher,
                       const TCryptBuffer<unsigned char>& key, const TBuffer<unsigned char>& baseIV)
    : m_stream(stream),
      m_access(access),
      m_allocator(allocator),
      m_grainSizeSectors(grainSizeSectors),
      m_grainSizeBytes(grainSizeSectors * vmdkSectorSize),
      m_compressed(compressed),
      m_compressionLevel(compressionLevel),
      m_fallbackDataProvider(fallbackDataProvider),
      m_data(new TBuffer<unsigned char>),
      m_prepared(new TBuffer<unsigned char>),
      m_cipher(cipher),
      m_key(key),
      m_baseIV(baseIV) {
    m_dataPreparer = createDataPreparer();
    m_worstCaseSlotSizeSectors = calcWorstCaseSlotSize(*m_dataPreparer, m_compressed, cipher);
}

CVMDKGrain::~CVMDKGrain() {
    try {
        close();
    } catch (const std::exception& error) {
        onExceptionInDestructorIgnored("tessel::CVMDKGrain", error, true);
    }
}

P<CVMDKDataPreparer> CVMDKGrain::createDataPreparer() const {
    return new CVMDKDataPreparer(m_grainSizeSectors, m_compressed, m_compressionLevel);
}

String CVMDKGrain::uriText() const {
    return m_stream->getURI().toString(true);
}

void CVMDKGrain::forgetData() noexcept {
    m_data->setUsed(0);
    m_prepared->setUsed(0);
}

void CVMDKGrain::open(int64 extentGrainIndex, int64 diskGrainIndex, int64 grainPosSectors,
                      int64 slotSizeSectors) {
    close();
    if (grainPosSectors > 0 && m_compressed && slotSizeSectors < 1)
        throw CInvalidArgError("CVMDKGrain::open", "Invalid slot size for allocated compressed grain: " +
                                                       toDecimal(slotSizeSectors) + " sectors");
    if (grainPosSectors > 0 && !m_compressed && slotSizeSectors < m_grainSizeSectors)
        throw CInvalidArgError("CVMDKGrain::open", "Slot size for allocated uncompressed grain is smaller "
                                                   "than the grain size (slot size: " +
                                                       toDecimal(slotSizeSectors) + " sectors, grain size: " +
                                                       toDecimal(m_grainSizeSectors) + " sectors");
    m_extentGrainIndex = extentGrainIndex;
    m_diskGrainIndex = diskGrainIndex;
    m_grainPosSectors = grainPosSectors;
    m_slotSizeSectors = grainPosSectors > 0 ? slotSizeSectors : 0;
    m_position = 0;
}

void CVMDKGrain::close() {
    flushChangesToStream();
    m_extentGrainIndex = -1;
    m_diskGrainIndex = -1;
    m_grainPosSectors = -1;
    m_slotSizeSectors = -1;
    m_position = 0;
    forgetData();
}

void CVMDKGrain::seek(int64 position) {
    if (position < 0 || position >= m_grainSizeBytes)
        throw CInvalidArgError(
            "CVMDKGrain::seek", "Invalid seek position in VMDK grain: " + toDecimal(position),
            CProps().add("uri", uriText()).add("position", position).add("grainSize", m_grainSizeBytes));
    m_position = position;
}

void CVMDKGrain::setFallbackDataProvider(IVMDKDataProvider* fallbackDataProvider) {
    m_fallbackDataProvider = fallbackDataProvider;
    if (!m_dirty && !hasSlot())
        forgetData();
}

bool CVMDKGrain::isGrainWritten() {
    if (isGrainWrittenAndIndependentOfParent())
        return true;
    return m_fallbackDataProvider && m_fallbackDataProvider->isGrainWritten(diskBytePosition());
}

bool CVMDKGrain::isGrainWrittenAndIndependentOfParent() const noexcept {
    return m_dirty || hasSlot();
}

void CVMDKGrain::makeGrainEncryptIV(TBuffer<unsigned char>& iv, const TBuffer<unsigned char>& baseIV,
                                    int64 grainIndex) {
    iv = baseIV;
    for (int64 i = 0; i < iv.getUsed(); ++i)
        iv[i] = static_cast<unsigned char>(iv[i] ^ (grainIndex >> (8 * (i % 8)) & 0xFF));
}

// --- Reading ---

void CVMDKGrain::readGrainData() {
    try {
        if (hasSlot() && m_compressed) {
            readCompressedGrain(*m_prepared);
            if (m_dataPreparer->unprepareGrainData(m_prepared.get(), m_data.get()) != m_data)
                throw CError("Internal error. VMDK data unprepare returned original buffer instead of aux "
                             "buffer, even though compression is used.");
        } else if (hasSlot()) {
            readUncompressedGrain(*m_data);
        } else {
            m_data->setUsed(m_grainSizeBytes);
            if (m_fallbackDataProvider)
                m_fallbackDataProvider->getData(diskBytePosition(), m_data->getData(),
                                                static_cast<int>(m_grainSizeBytes));
            else
                m_data->fill(0);
        }
    } catch (...) {
        forgetData();
        throw;
    }
}

// The head of a record is plain also where the rest is encrypted.
void CVMDKGrain::readCompressedGrain(TBuffer<unsigned char>& target) {
    constexpr int headSize = CVMDKDataPreparer::recordHeadSize;
    TBuffer<unsigned char>& raw = m_cipher ? m_encrypted : target;
    const int64 slotPosition = m_grainPosSectors * vmdkSectorSize;
    raw.setUsed(vmdkSectorSize);
    m_stream->seek(slotPosition);
    m_stream->read(raw.getData(), vmdkSectorSize);

    const UGrainRecordHead head = loadGrainRecordHead(raw.getData());
    if (head.compressedSize > 2 * m_grainSizeBytes)
        throw CIOError(CIOError::Code_BadFormat,
                       "Error reading compressed data from VMDK. Invalid compressed grain size.",
                       CProps()
                           .add("uri", uriText())
                           .add("position", slotPosition)
                           .add("lba", head.positionSectors)
                           .add("compressedGrainSize", head.compressedSize));
    const int64 payload =
        m_cipher ? roundUp(head.compressedSize, m_cipher->getBlockSizeBytes()) : int64{head.compressedSize};
    const int64 recordBytes = roundUp(headSize + payload, vmdkSectorSize);
    if (recordBytes > largestUnprovenRecord) {
        // What the head claims must be there before memory is taken for it.
        unsigned char last = 0;
        m_stream->seek(slotPosition + recordBytes - 1);
        m_stream->read(&last, 1);
        m_stream->seek(slotPosition + vmdkSectorSize);
    }
    raw.setUsed(recordBytes);
    m_stream->read(raw.getData() + vmdkSectorSize, static_cast<int>(recordBytes - vmdkSectorSize));
    if (!m_cipher)
        return;

    target.assign(raw.getData(), headSize);
    target.ensureAllocated(headSize + payload);
    makeGrainEncryptIV(m_grainIV, m_baseIV, m_diskGrainIndex);
    m_cipher->decrypt(raw.getData() + headSize, static_cast<int>(payload), m_key, m_grainIV, target, true);
    target.setUsed(headSize + head.compressedSize);
}

void CVMDKGrain::readUncompressedGrain(TBuffer<unsigned char>& target) {
    TBuffer<unsigned char>& raw = m_cipher ? m_encrypted : target;
    raw.setUsed(m_grainSizeBytes);
    m_stream->seek(m_grainPosSectors * vmdkSectorSize);
    m_stream->read(raw.getData(), static_cast<int>(m_grainSizeBytes));
    if (!m_cipher)
        return;

    target.setUsed(0);
    makeGrainEncryptIV(m_grainIV, m_baseIV, m_diskGrainIndex);
    m_cipher->decrypt(raw.getData(), static_cast<int>(m_grainSizeBytes), m_key, m_grainIV, target, false);
    if (target.getUsed() != m_grainSizeBytes)
        throw CError(
            "Internal error: CVMDKGrain::readUncompressedGrain decrypted data size is not "
            "uncompressed grain size",
            String(), -1,
            CProps().add("decryptedSize", target.getUsed()).add("uncompressedGrainSize", m_grainSizeBytes));
}

void CVMDKGrain::read(void* buffer, int count) {
    if (count < 0)
        throw CInvalidArgError("CVMDKGrain::read", "Invalid number of bytes to read: " + toDecimal(count),
                               CProps().add("uri", uriText()));
    if (m_position + count > m_grainSizeBytes)
        throw CIOError(CIOError::Code_UnexpectedEnd,
                       "Unexpected end of data trying to read " + toDecimal(count) +
                           " bytes from VMDK grain.",
                       CProps().add("uri", uriText()).add("position", m_position).add("bytesToRead", count));
    if (!isLoaded() && hasSlot())
        readGrainData();
    if (isLoaded())
        std::copy_n(m_data->getData() + m_position, count, static_cast<unsigned char*>(buffer));
    else if (m_fallbackDataProvider)
        m_fallbackDataProvider->getData(diskBytePosition() + m_position, buffer, count);
    else
        std::fill_n(static_cast<unsigned char*>(buffer), count, 0);
    m_position += count;
}

void CVMDKGrain::readInPlace(void* buffer, int count) {
    const bool isInPlace = !m_compressed && !m_cipher && hasSlot() && !isLoaded() && count >= 0 &&
                           count <= m_grainSizeBytes - m_position;
    if (!isInPlace) {
        read(buffer, count);
        return;
    }
    m_stream->seek(m_grainPosSectors * vmdkSectorSize + m_position);
    m_stream->read(buffer, count);
    m_position += count;
}

// --- Writing ---

void CVMDKGrain::write(const void* buffer, int count) {
    if (count == 0)
        return;
    if (count < 0)
        throw CInvalidArgError("CVMDKGrain::read", "Invalid number of bytes to read: " + toDecimal(count),
                               CProps().add("uri", uriText()));
    if (m_position + count > m_grainSizeBytes)
        throw CIOError(CIOError::Code_WriteBeyondEnd,
                       "Cannot write " + toDecimal(count) + " bytes to grain. Grain size exceeded.",
                       CProps().add("uri", uriText()));
    if (m_access != IIOStream::Access_ReadWrite)
        throw CError("Internal error: CVMDKGrain::write was called, but the grain was not opened for "
                     "writing.");
    if (count == m_grainSizeBytes)
        m_data->setUsed(m_grainSizeBytes); // nothing of the old contents stays
    else if (!isLoaded())
        readGrainData();
    std::copy_n(static_cast<const unsigned char*>(buffer), count, m_data->getData() + m_position);
    m_prepared->setUsed(0);
    m_position += count;
    m_dirty = true;
}

void CVMDKGrain::flushChangesToStream() {
    if (!m_dirty)
        return;
    if (!hasSlot() && isZeroMemory(m_data->getData(), static_cast<std::size_t>(m_data->getUsed()))) {
        m_dirty = false;
        if (m_fallbackDataProvider)
            forgetData(); // what is read from now on is what is stored
        return;
    }
    const P<TBuffer<unsigned char>> prepared =
        m_dataPreparer->prepareGrainData(m_data.get(), m_diskGrainIndex, m_prepared.get());
    writePreparedGrainDataInternal(TConstBufferSlice<unsigned char>(*prepared), false);
    m_dirty = false;
}

// The result lies in m_encrypted, in whole sectors.
TConstBufferSlice<unsigned char>
CVMDKGrain::encryptPreparedData(const TConstBufferSlice<unsigned char>& data) {
    makeGrainEncryptIV(m_grainIV, m_baseIV, m_diskGrainIndex);
    m_encrypted.setUsed(0);
    m_encrypted.ensureAllocated(m_worstCaseSlotSizeSectors * vmdkSectorSize);
    if (!m_compressed) {
        m_cipher->encrypt(data.getData(), static_cast<int>(data.getLength()), m_key, m_grainIV, m_encrypted,
                          false);
        if (m_encrypted.getUsed() != m_grainSizeBytes)
            throw CError(
                "Internal error. Encrypted data in CVMDKGrain::writePreparedGrainDataInternal has an "
                "unexpected size.",
                String(), -1,
                CProps()
                    .add("encryptedSize", m_encrypted.getUsed())
                    .add("uncompressedGrainSize", m_grainSizeBytes));
    } else {
        constexpr int headSize = CVMDKDataPreparer::recordHeadSize;
        m_encrypted.append(data.getData(), headSize);
        m_cipher->encrypt(data.getData() + headSize, static_cast<int>(data.getLength() - headSize), m_key,
                          m_grainIV, m_encrypted, true);
        padToSector(m_encrypted);
    }
    return TConstBufferSlice<unsigned char>(m_encrypted);
}

void CVMDKGrain::writePreparedGrainDataInternal(const TConstBufferSlice<unsigned char>& data,
                                                bool keepBuffer) {
    writeIntoSlot(m_cipher ? encryptPreparedData(data) : data, keepBuffer);
    m_dirty = false;
}

void CVMDKGrain::writeIntoSlot(const TConstBufferSlice<unsigned char>& data, bool keepBuffer) {
    int64 slotSize = m_grainSizeSectors;
    bool inPlace = hasSlot();
    if (m_compressed) {
        const int64 needed = divideRoundingUp(data.getLength(), vmdkSectorSize);
        if (inPlace && needed > m_slotSizeSectors) {
            // The grain moves, into a slot that will hold whatever comes later.
            inPlace = false;
            slotSize = m_worstCaseSlotSizeSectors;
        } else {
            slotSize = inPlace ? m_slotSizeSectors : needed;
        }
    }
    if (inPlace) {
        m_stream->seek(m_grainPosSectors * vmdkSectorSize);
        if (keepBuffer)
            m_stream->writeKeepBuffer(data, nullptr);
        else
            m_stream->write(data.getData(), static_cast<int>(data.getLength()), nullptr);
        return;
    }
    // The old slot is given up only when the new one stands.
    const auto slotSizeSectors = static_cast<int>(slotSize);
    const int64 newPosition =
        keepBuffer ? m_allocator->allocNewGrainKeepBuffer(m_extentGrainIndex, data, slotSizeSectors)
                   : m_allocator->allocNewGrain(m_extentGrainIndex, data.getData(),
                                                static_cast<int>(data.getLength()), slotSizeSectors);
    m_grainPosSectors = newPosition;
    m_slotSizeSectors = slotSize;
}

// --- Prepared grains ---

void CVMDKGrain::verifyAtStart(const char* method) const {
    if (m_position != 0)
        throw CIOError(CIOError::Code_NotOnGrainBoundary,
                       String("CVMDKGrain::") + method +
                           " can only be called when the position in the grain is 0.",
                       CProps().add("uri", uriText()).add("position", m_position));
}

void CVMDKGrain::initZeroGrainData(int64 diskGrainIndex) {
    if (!m_preparedZeroGrain) {
        m_zeroGrain = new TBuffer<unsigned char>(m_grainSizeBytes);
        const P<TBuffer<unsigned char>> aux(new TBuffer<unsigned char>);
        m_preparedZeroGrain = m_dataPreparer->prepareGrainData(m_zeroGrain.get(), 0, aux.get());
    }
    m_dataPreparer->patchGrainIndexInPreparedGrainData(*m_preparedZeroGrain, diskGrainIndex);
}

void CVMDKGrain::readPreparedGrainData(TBuffer<unsigned char>& out) {
    try {
        fetchPreparedGrainData(out);
    } catch (...) {
        out.setUsed(0);
        throw;
    }
    m_position = m_grainSizeBytes;
}

void CVMDKGrain::fetchPreparedGrainData(TBuffer<unsigned char>& out) {
    out.setUsed(0);
    verifyAtStart("tryReadPreparedGrainData");
    flushChangesToStream();
    const TBuffer<unsigned char>& loaded = m_compressed ? *m_prepared : *m_data;
    if (hasSlot() && !loaded.isEmpty()) {
        out = loaded;
    } else if (hasSlot()) {
        if (m_compressed)
            readCompressedGrain(out);
        else
            readUncompressedGrain(out);
    } else if (m_fallbackDataProvider) {
        m_fallbackDataProvider->getPreparedGrainData(diskBytePosition(), out,
                                                     static_cast<int>(m_grainSizeBytes), m_compressed);
    } else {
        initZeroGrainData(m_diskGrainIndex);
        out = *m_preparedZeroGrain;
    }
}

void CVMDKGrain::writePreparedGrainData(const TBuffer<unsigned char>& data) {
    writePreparedGrainDataImpl(TConstBufferSlice<unsigned char>(data), false);
}

void CVMDKGrain::writePreparedGrainDataKeepBuffer(const TConstBufferSlice<unsigned char>& data) {
    writePreparedGrainDataImpl(data, true);
}

void CVMDKGrain::verifyPreparedData(const TConstBufferSlice<unsigned char>& data) const {
    m_dataPreparer->verifyPreparedGrainData(data, "CVMDKGrain::writePreparedGrainData",
                                            [this] { return m_stream->getURI(); });
}

/// The record as it is to be stored: whole sectors, and the sector number of this grain, since the record may
/// come from another disk, where the grain had another place. Most need no copy.
TConstBufferSlice<unsigned char>
CVMDKGrain::makeRecordOfThisGrain(const TConstBufferSlice<unsigned char>& data) {
    const auto position = static_cast<uint64>(m_diskGrainIndex * m_grainSizeSectors);
    if (data.getLength() % vmdkSectorSize == 0 &&
        loadGrainRecordHead(data.getData()).positionSectors == position)
        return data;
    m_record.assign(data.getData(), data.getLength());
    m_dataPreparer->patchGrainIndexInPreparedGrainData(m_record, m_diskGrainIndex);
    padToSector(m_record);
    return TConstBufferSlice<unsigned char>(m_record);
}

void CVMDKGrain::writePreparedGrainDataImpl(const TConstBufferSlice<unsigned char>& data, bool keepBuffer) {
    if (m_access != IIOStream::Access_ReadWrite)
        throw CError("Internal error: CVMDKGrain::writePreparedGrainData was called, but the grain was not "
                     "opened for writing.");
    verifyAtStart("writePreparedGrainData");
    verifyPreparedData(data);
    try {
        writePreparedGrainDataInternal(m_compressed ? makeRecordOfThisGrain(data) : data, keepBuffer);
    } catch (...) {
        if (!m_dirty)
            forgetData(); // the slot may hold anything now; a pending change still stands
        throw;
    }
    forgetData();
    m_position = m_grainSizeBytes;
}

int64 CVMDKGrain::makeIndependentOfParent() {
    verifyAtStart("makeIndependentOfParent");
    if (m_access != IIOStream::Access_ReadWrite)
        throw CError("Internal error: CVMDKGrain::makeIndependentOfParent was called, but the grain was not "
                     "opened for writing.");
    if (!hasSlot())
        flushChangesToStream();
    if (!m_fallbackDataProvider || hasSlot()) {
        m_position = m_grainSizeBytes;
        return m_fallbackDataProvider ? m_grainSizeBytes : 0;
    }
    TBuffer<unsigned char> prepared;
    m_fallbackDataProvider->getPreparedGrainData(diskBytePosition(), prepared,
                                                 static_cast<int>(m_grainSizeBytes), m_compressed);
    writePreparedGrainData(prepared);
    return prepared.getUsed();
}

} // namespace tessel
