#include "tessel/CVMDKSparseExtentFile.h"

#include "lum/CBufferStream.h"
#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"
#include "lum/Logging.h"
#include "lum/Numbers.h"
#include "sigil/CDigestType_SHA256.h"
#include "sigil/ConstantTime.h"
#include "tessel/VMDKMarker.h"

#include <algorithm>

namespace tessel {

namespace {

/// Numbers that the header's encryption extension uses.
constexpr int encryptionAlgorithmAES256CBC = 1;
constexpr int keyHashAlgorithmSHA256 = 1;

constexpr uint64 directoryAtEnd = 0xFFFFFFFFFFFFFFFF;
constexpr uint64 maxSectors = static_cast<uint64>(INT64_MAX / vmdkSectorSize);

/// Footer marker, footer, end-of-stream marker.
constexpr int64 trailSize = 3 * vmdkSectorSize;

} // namespace

CVMDKSparseExtentFile::CVMDKSparseExtentFile(IIOStream* stream, IIOStream::Access access,
                                             int64 startGrainIndex, int compressionSetting,
                                             CVMDKGrainTableCache* cache, IVMDKDataProvider* fallback,
                                             CVMDKContentIDUpdater* updater, sigil::ICipher* cipher,
                                             const TCryptBuffer<unsigned char>& key,
                                             const TBuffer<unsigned char>& iv)
    : m_stream(stream),
      m_access(access),
      m_grainTableCache(cache),
      m_startGrainIndex(startGrainIndex),
      m_fallbackDataProvider(fallback),
      m_contentIDUpdater(updater),
      m_header(new CVMDKSparseExtentHeader),
      m_compressionSetting(compressionSetting),
      m_cipher(cipher),
      m_encryptionKey(key),
      m_encryptionIV(iv) {
    CDataInStream in(stream);
    m_header->load(in);
    verifyEncryption();
    verifyFormat();
    m_capacitySectors = static_cast<int64>(m_header->getCapacitySectors());
    m_capacityBytes = m_capacitySectors * vmdkSectorSize;
    m_grainSizeSectors = static_cast<int64>(m_header->getGrainSizeSectors());
    m_grainSizeBytes = m_grainSizeSectors * vmdkSectorSize;
    m_compressed = (m_header->getFlags() & CVMDKSparseExtentHeader::Flag_Compressed) != 0;
    m_grainDirectory = new CVMDKGrainDirectory(
        stream, access, static_cast<int64>(m_header->getGrainDirectoryOffsetSectors()),
        static_cast<int64>(m_header->getRedundantGrainDirectoryOffsetSectors()), m_capacitySectors,
        m_grainSizeSectors, static_cast<int>(m_header->getGrainTableEntryCount()), m_compressed, cache,
        static_cast<int64>(m_header->getOverheadSectors()));
    m_grainAllocator = new CVMDKGrainAllocator(
        stream, access, m_grainSizeSectors, m_compressed ? 1 : m_grainSizeSectors, m_grainDirectory.get(),
        buildTrail(), static_cast<int64>(m_header->getOverheadSectors()));
    m_grainDirectory->setSlotBounds(std::max<int64>(static_cast<int64>(m_header->getOverheadSectors()), 1),
                                    m_grainAllocator->getDataEnd());
    m_grain = new CVMDKGrain(stream, access, m_grainSizeSectors, m_grainAllocator.get(), m_compressed,
                             compressionSetting, fallback, cipher, key, iv);
}

CVMDKSparseExtentFile::~CVMDKSparseExtentFile() {
    try {
        CVMDKSparseExtentFile::flushChanges();
    } catch (const std::exception& error) {
        onExceptionInDestructorIgnored("tessel::CVMDKSparseExtentFile", error, true);
    }
}

CProps CVMDKSparseExtentFile::uriProps() const {
    return CProps().add("uri", m_stream->getURI().toString(true));
}

// --- What must be true of a file before it is used ---

void CVMDKSparseExtentFile::verifyEncryption() const {
    static const char* const source = "CVMDKSparseExtentFile constructor";
    if (!m_header->getEncryptionExtensionEnabled() || m_header->getEncryptionAlgorithm() == 0) {
        if (m_cipher)
            throw CInvalidArgError(
                source, "VMDK extent file is NOT encrypted but a cipher object was specified.", uriProps());
        return;
    }
    if (!m_cipher)
        throw CInvalidArgError(source, "VMDK extent file is encrypted but no cipher object was specified.",
                               uriProps());
    if (m_cipher->getID() != "aes256cbc")
        throw CInvalidArgError(source, "Cipher object has an unsupported ID: " + m_cipher->getID(),
                               uriProps());
    if (m_encryptionKey.getUsed() != m_cipher->getKeySizeBytes())
        throw CInvalidArgError(source, "Specified encryption key has an incorrect size for the cipher",
                               uriProps()
                                   .add("expectedKeySize", m_cipher->getKeySizeBytes())
                                   .add("keySize", m_encryptionKey.getUsed())
                                   .add("cipherID", m_cipher->getID()));
    if (m_header->getEncryptionAlgorithm() != encryptionAlgorithmAES256CBC)
        throw CError("Unsupported encryption algorithm used by VMDK extent file: " +
                         toDecimal(m_header->getEncryptionAlgorithm()),
                     String(), -1, uriProps());
    if (m_header->getEncryptionKeyHashAlgorithm() != keyHashAlgorithmSHA256)
        throw CError("Unsupported key hash algorithm used in VMDK: " +
                         toDecimal(m_header->getEncryptionKeyHashAlgorithm()),
                     String(), -1, uriProps());
    verifyKey();
}

void CVMDKSparseExtentFile::verifyKey() const {
    const P<sigil::IDigest> digest = sigil::CDigestType_SHA256().createDigest();
    digest->update(m_encryptionKey.getData(), static_cast<int>(m_encryptionKey.getUsed()));
    digest->finish();
    const TBuffer<unsigned char>& expected = m_header->getEncryptionKeyHash();
    if (digest->getSizeBytes() != expected.getUsed() ||
        !sigil::isEqualInConstantTime(digest->getBytes(), expected.getData(),
                                      static_cast<std::size_t>(expected.getUsed())))
        throw CError("Specified VMDK extent file encryption key is not correct.", String(), -1, uriProps());
}

void CVMDKSparseExtentFile::verifyNumber(const char* name, uint64 value, uint64 smallest,
                                         uint64 largest) const {
    if (value < smallest || value > largest)
        throw CIOError(CIOError::Code_BadFormat,
                       String("VMDK sparse header has an invalid ") + name + ": " + toDecimal(value) +
                           " (allowed: " + toDecimal(smallest) + " to " + toDecimal(largest) + ").",
                       uriProps().add(name, value));
}

void CVMDKSparseExtentFile::verifyFormat() const {
    using Header = CVMDKSparseExtentHeader;
    if (m_header->getVersion() < 1 || m_header->getVersion() > 3)
        throw CIOError(CIOError::Code_UnsupportedVersion,
                       "VMDK file has an unsupported version: " + toDecimal(m_header->getVersion()),
                       uriProps());
    const bool compressed = (m_header->getFlags() & Header::Flag_Compressed) != 0;
    const bool metaMarkers = (m_header->getFlags() & Header::Flag_MetaMarkers) != 0;
    if (compressed != metaMarkers)
        throw CIOError(CIOError::Code_BadFormat,
                       "VMDK flags 'compressed' and 'metaMarkers' are different (compressed: " +
                           toText(compressed) + ", metaMarkers: " + toText(metaMarkers) + ").",
                       uriProps());
    if (m_header->getGrainDirectoryOffsetSectors() == directoryAtEnd)
        throw CIOError(CIOError::Code_BadFormat,
                       "VMDK file uses an unsupported variant of the 'stream optimized' format.", uriProps());
    if ((m_header->getFlags() & Header::Flag_ZeroGrainEntry) != 0)
        throw CIOError(CIOError::Code_BadFormat,
                       "VMDK file uses unsupported zeroed-grain table entries (flags: 0x" +
                           toHexString(m_header->getFlags()) + ").",
                       uriProps().add("flags", m_header->getFlags()));
    // The directory checks these numbers closer; here they must only fit signed arithmetic.
    verifyNumber("capacity", m_header->getCapacitySectors(), 0, maxSectors);
    verifyNumber("grainSize", m_header->getGrainSizeSectors(), 1, CVMDKGrainDirectory::maxGrainSizeSectors);
    verifyNumber("grainTableEntryCount", m_header->getGrainTableEntryCount(), 1,
                 CVMDKGrainDirectory::maxEntriesPerTable);
    verifyNumber("grainDirectoryOffset", m_header->getGrainDirectoryOffsetSectors(), 1, maxSectors);
    verifyNumber("redundantGrainDirectoryOffset", m_header->getRedundantGrainDirectoryOffsetSectors(), 0,
                 maxSectors);
    verifyNumber("overhead", m_header->getOverheadSectors(), 0, maxSectors);
}

void CVMDKSparseExtentFile::verifyFitsDisk(int64 grainSizeSectors, bool compressed, int64 sizeSectors) {
    if (m_grainSizeSectors == grainSizeSectors && m_compressed == compressed &&
        m_capacitySectors >= sizeSectors)
        return;
    m_grainAllocator->leaveFileAlone(); // not even the trail may be mended in a stranger's file
    throw CIOError(
        CIOError::Code_BadFormat,
        "VMDK extent file does not belong to this disk (grain size: " + toDecimal(m_grainSizeSectors) +
            " sectors, expected: " + toDecimal(grainSizeSectors) + "; compressed: " + toText(m_compressed) +
            ", expected: " + toText(compressed) + "; capacity: " + toDecimal(m_capacitySectors) +
            " sectors, expected at least: " + toDecimal(sizeSectors) + ").",
        uriProps()
            .add("grainSize", m_grainSizeSectors)
            .add("compressed", toText(m_compressed))
            .add("capacity", m_capacitySectors));
}

TBuffer<unsigned char> CVMDKSparseExtentFile::buildTrail() {
    TBuffer<unsigned char> trail;
    if (!m_compressed)
        return trail;
    const TBuffer<unsigned char> zeros(trailSize);
    const P<CBufferStream> stream(new CBufferStream(&trail, 1.0));
    CDataOutStream out(stream.get());
    writeVMDKMarker(out, MarkerFooter, 1, zeros);
    m_header->store(out);
    writeVMDKMarker(out, MarkerEndOfStream, 0, zeros);
    return trail;
}

// --- Position ---

void CVMDKSparseExtentFile::setFallbackDataProvider(IVMDKDataProvider* fallbackDataProvider) {
    m_fallbackDataProvider = fallbackDataProvider;
    m_grain->setFallbackDataProvider(fallbackDataProvider);
}

CURI CVMDKSparseExtentFile::getURI() {
    return m_stream->getURI();
}

void CVMDKSparseExtentFile::throwBadPosition(int64 position) const {
    throw CInvalidArgError("CVMDKSparseExtentFile::seek", "Invalid position: " + toDecimal(position),
                           uriProps());
}

void CVMDKSparseExtentFile::seek(int64 position) {
    if (position < 0 || position > m_capacityBytes)
        throwBadPosition(position);
    // NOLINTNEXTLINE(clang-analyzer-core.DivideZero): no header with a grain size of 0 gets here
    const int64 grainIndex = position / m_grainSizeBytes;
    if (grainIndex != m_currentGrainIndex || !m_grain->isOpen()) {
        // Before anything is looked up: writing the open grain may give a grain a slot.
        m_grain->flushChangesToStream();
        int64 grainPosSectors = 0;
        int64 slotSizeSectors = 0;
        m_grainDirectory->getGrainInfo(grainIndex, grainPosSectors, slotSizeSectors);
        m_currentGrainIndex = -1;
        m_grain->open(grainIndex, m_startGrainIndex + grainIndex, grainPosSectors, slotSizeSectors);
        m_currentGrainIndex = grainIndex;
    }
    m_grain->seek(position % m_grainSizeBytes);
    m_position = position;
}

void CVMDKSparseExtentFile::startAt(int64 position) {
    if (position == m_capacityBytes)
        m_position = position;
    else
        seek(position);
}

int64 CVMDKSparseExtentFile::beginIOOp(int64 size) {
    // The grain may be open on another than the position's: a whole-grain transfer leaves it at its end.
    const auto bytesLeft = [this]() -> int64 {
        // NOLINTNEXTLINE(clang-analyzer-core.DivideZero): no header with a grain size of 0 gets here
        const bool isCurrent = m_grain->isOpen() && m_currentGrainIndex == m_position / m_grainSizeBytes;
        return isCurrent ? m_grain->getBytesLeft() : 0;
    };
    if (bytesLeft() == 0)
        seek(m_position);
    const int64 left = bytesLeft();
    if (left <= 0)
        throw CError("Internal error. After seeking to grain at position " + toDecimal(m_position) +
                         " there are still no bytes left in the grain.",
                     String(), -1, uriProps());
    return std::min(size, left);
}

// --- Bytes ---

void CVMDKSparseExtentFile::read(void* buffer, int size) {
    verifySize("CVMDKSparseExtentFile::read", "read", size);
    if (size > m_capacityBytes - m_position)
        throw CIOError(CIOError::Code_UnexpectedEnd,
                       "Unexpected end of data reading from VMDK sparse extent file.",
                       uriProps().add("position", m_position).add("bytesToRead", size));
    auto* target = static_cast<unsigned char*>(buffer);
    bool singly = false;
    while (size > 0) {
        int piece = moveWholeGrains(size, singly, [&](int most) { return readWholeGrains(target, most); });
        if (piece == 0) {
            piece = static_cast<int>(beginIOOp(size));
            m_grain->readInPlace(target, piece);
        }
        target += piece;
        size -= piece;
        m_position += piece;
    }
}

void CVMDKSparseExtentFile::write(const void* buffer, int size) {
    verifySize("CVMDKSparseExtentFile::write", "write", size);
    if (size > m_capacityBytes - m_position)
        throw CIOError(CIOError::Code_WriteBeyondEnd, "Write exceeded VMDK extent size.",
                       uriProps().add("position", m_position).add("bytesToWrite", size));
    onAboutToChange();
    const auto* source = static_cast<const unsigned char*>(buffer);
    bool singly = false;
    while (size > 0) {
        int piece = moveWholeGrains(size, singly, [&](int most) { return writeWholeGrains(source, most); });
        if (piece == 0) {
            piece = static_cast<int>(beginIOOp(size));
            // A missing table is told here: a change that can never be stored would keep the grain from
            // being left.
            if (m_grain->getGrainStartPositionSectors() == 0)
                m_grainDirectory->getGrainTable(m_currentGrainIndex / m_grainDirectory->getEntriesPerTable());
            m_grain->write(source, piece);
        }
        source += piece;
        size -= piece;
        m_position += piece;
    }
}

// Whole grains of plain extents go between the caller's memory and the file without a stop in the grain
// object, as many at once as lie next to each other.

bool CVMDKSparseExtentFile::isAtWholePlainGrains(int size) const noexcept {
    return !m_compressed && !m_cipher && m_position % m_grainSizeBytes == 0 && size >= m_grainSizeBytes;
}

/// What `move(size)` moved, 0 when the position is not at whole plain grains. Several grains at once that
/// fail are tried again one by one, so that the position tells how far it came.
template <class Move>
int CVMDKSparseExtentFile::moveWholeGrains(int size, bool& singly, Move move) {
    if (!isAtWholePlainGrains(size))
        return 0;
    const auto grainSize = static_cast<int>(m_grainSizeBytes);
    if (singly || size < 2 * m_grainSizeBytes)
        return move(std::min(size, grainSize));
    try {
        return move(size);
    } catch (const CError&) {
        singly = true;
    }
    return move(grainSize);
}

void CVMDKSparseExtentFile::verifySize(const char* method, const char* verb, int size) const {
    if (size < 0)
        throw CInvalidArgError(method, String("Invalid number of bytes to ") + verb + ": " + toDecimal(size),
                               uriProps());
}

/// How many grains, at most `most`, have slots that follow each other, or have none; `posSectors` is the
/// first slot's, 0 for none. 0 grains when a slot is not as it must be: opening the grain tells why.
int CVMDKSparseExtentFile::findSlotSequence(int64 firstGrainIndex, int most, int64& posSectors) {
    int count = 0;
    for (; count < most; ++count) {
        int64 grainPosSectors = 0;
        int64 slotSizeSectors = 0;
        m_grainDirectory->getGrainInfo(firstGrainIndex + count, grainPosSectors, slotSizeSectors);
        if (count == 0)
            posSectors = grainPosSectors;
        const int64 expected = posSectors == 0 ? 0 : posSectors + count * m_grainSizeSectors;
        if (grainPosSectors != expected || (posSectors != 0 && slotSizeSectors < m_grainSizeSectors))
            break;
    }
    return count;
}

int CVMDKSparseExtentFile::readWholeGrains(void* buffer, int size) {
    m_grain->flushChangesToStream();
    int64 posSectors = 0;
    const int count = findSlotSequence(m_position / m_grainSizeBytes,
                                       static_cast<int>(size / m_grainSizeBytes), posSectors);
    const auto bytes = static_cast<int>(count * m_grainSizeBytes);
    if (count == 0)
        return 0;
    m_currentGrainIndex = -1; // the grain object does not follow
    if (posSectors != 0) {
        m_stream->seek(posSectors * vmdkSectorSize);
        m_stream->read(buffer, bytes);
    } else if (m_fallbackDataProvider) {
        m_fallbackDataProvider->getData(m_startGrainIndex * m_grainSizeBytes + m_position, buffer, bytes);
    } else {
        std::fill_n(static_cast<unsigned char*>(buffer), bytes, 0);
    }
    return bytes;
}

int CVMDKSparseExtentFile::writeWholeGrains(const void* buffer, int size) {
    m_grain->flushChangesToStream();
    const int64 grainIndex = m_position / m_grainSizeBytes;
    int64 posSectors = 0;
    int count = findSlotSequence(grainIndex, static_cast<int>(size / m_grainSizeBytes), posSectors);
    if (count == 0)
        return 0;
    m_currentGrainIndex = -1; // what the grain object may have loaded is about to change
    if (posSectors != 0) {
        m_stream->seek(posSectors * vmdkSectorSize);
        m_stream->write(buffer, static_cast<int>(count * m_grainSizeBytes), nullptr);
        return static_cast<int>(count * m_grainSizeBytes);
    }
    // As everywhere, zeros in a grain without a slot are not stored.
    const auto isZeroGrain = [&](int i) {
        return isZeroMemory(static_cast<const unsigned char*>(buffer) + i * m_grainSizeBytes,
                            static_cast<std::size_t>(m_grainSizeBytes));
    };
    const bool zero = isZeroGrain(0);
    int same = 1;
    while (same < count && isZeroGrain(same) == zero)
        ++same;
    if (zero) // where the table is missing that is told, as for any other bytes
        m_grainDirectory->getGrainTable(grainIndex / m_grainDirectory->getEntriesPerTable());
    else
        m_grainAllocator->allocNewGrainRun(grainIndex, buffer, same);
    return static_cast<int>(same * m_grainSizeBytes);
}

void CVMDKSparseExtentFile::flushChanges() {
    if (m_access == IIOStream::Access_Read)
        return;
    if (m_grain->isOpen())
        m_grain->flushChangesToStream();
    m_grainAllocator->flushChangesToStream();
    m_grainDirectory->flushChangesInOrder();
    m_stream->flush();
}

void CVMDKSparseExtentFile::onAboutToChange() {
    if (!m_contentIDUpdater)
        throw CError("Internal error: VMDK sparse extent file is about to be changed, but it does not have a "
                     "content ID updater.",
                     String(), -1, uriProps());
    verifyHaveWriteAccess();
    m_contentIDUpdater->onDiskAboutToChange(*this);
}

void CVMDKSparseExtentFile::verifyHaveWriteAccess() {
    if (m_access != IIOStream::Access_ReadWrite)
        throw CError("Internal error: VMDK sparse extent file is about to be changed, but it was not opened "
                     "for writing.",
                     String(), -1, uriProps());
}

// --- Grains ---

P<CVMDKDataPreparer> CVMDKSparseExtentFile::createDataPreparer() {
    return new CVMDKDataPreparer(m_grainSizeSectors, m_compressed, m_compressionSetting);
}

void CVMDKSparseExtentFile::verifyPreparedTransfer(const char* verb) {
    if (m_grainSizeBytes > m_capacityBytes - m_position)
        throw CIOError(CIOError::Code_WriteBeyondEnd,
                       String("Prepared grain ") + verb + " exceeds VMDK extent size.",
                       uriProps()
                           .add("position", m_position)
                           .add("grainSize", m_grainSizeBytes)
                           .add("extentSize", m_capacityBytes));
    if (m_position % m_grainSizeBytes != 0)
        throw CIOError(CIOError::Code_NotOnGrainBoundary,
                       String("Prepared grain ") + verb +
                           " in VMDK extent file can only be done on a grain boundary.",
                       uriProps().add("position", m_position).add("grainSize", m_grainSizeBytes));
}

void CVMDKSparseExtentFile::beginPreparedTransfer(const char* method) {
    const int64 piece = beginIOOp(m_grainSizeBytes);
    if (piece != m_grainSizeBytes)
        throw CError(String("Internal error: CVMDKSparseExtentFile::beginIOOp in CVMDKSparseExtentFile::") +
                         method + " returned less than the grain size.",
                     String(), -1,
                     uriProps()
                         .add("position", m_position)
                         .add("grainSize", m_grainSizeBytes)
                         .add("toWrite", piece)
                         .add("extentSize", m_capacityBytes));
}

void CVMDKSparseExtentFile::readPreparedGrainData(TBuffer<unsigned char>& data) {
    verifyPreparedTransfer("read");
    beginPreparedTransfer("tryReadPreparedGrainData");
    m_grain->readPreparedGrainData(data);
    m_position += m_grainSizeBytes;
}

void CVMDKSparseExtentFile::writePreparedGrainData(const TBuffer<unsigned char>& data) {
    verifyPreparedTransfer("write");
    if (m_access == IIOStream::Access_ReadWrite)
        m_grain->verifyPreparedData(TConstBufferSlice<unsigned char>(data)); // before the content ID changes
    onAboutToChange();
    beginPreparedTransfer("writePreparedGrainData");
    m_grain->writePreparedGrainData(data);
    m_position += m_grainSizeBytes;
}

int64 CVMDKSparseExtentFile::makeGrainIndependentOfParent(int64 grainIndex) {
    verifyHaveWriteAccess();
    // What no position can name is refused by seek as the position furthest away on its side.
    const bool fits =
        grainIndex >= INT64_MIN / m_grainSizeBytes && grainIndex <= INT64_MAX / m_grainSizeBytes;
    const int64 start = fits ? grainIndex * m_grainSizeBytes : grainIndex < 0 ? INT64_MIN : INT64_MAX;
    // The end is a position, but no grain begins there.
    if (start == m_capacityBytes)
        throwBadPosition(start);
    seek(start);
    const int64 result = m_grain->makeIndependentOfParent();
    m_position = std::min(m_position + m_grainSizeBytes, m_capacityBytes);
    return result;
}

bool CVMDKSparseExtentFile::isGrainWritten() {
    beginIOOp(1);
    return m_grain->isGrainWritten();
}

bool CVMDKSparseExtentFile::isGrainWrittenAndIndependentOfParent() {
    beginIOOp(1);
    return m_grain->isGrainWrittenAndIndependentOfParent();
}

int64 CVMDKSparseExtentFile::findSlotRun(int64 grainIndex, bool& hasSlot) {
    m_grain->flushChangesToStream();
    return m_grainDirectory->findSlotRun(grainIndex, hasSlot);
}

int64 CVMDKSparseExtentFile::findStoredGrains(int64 grainIndex, int64 mostGrains, int64& posSectors,
                                              int64& slotSectors) {
    m_grain->flushChangesToStream();
    slotSectors = 0;
    int64 count = 0;
    for (; count < mostGrains; ++count) {
        int64 grainPosSectors = 0;
        int64 slotSizeSectors = 0;
        m_grainDirectory->getGrainInfo(grainIndex + count, grainPosSectors, slotSizeSectors);
        if (count == 0)
            posSectors = grainPosSectors;
        const bool continues = m_compressed || grainPosSectors == posSectors + count * m_grainSizeSectors;
        if (grainPosSectors == 0 || !continues)
            break;
        slotSectors += m_compressed ? slotSizeSectors : m_grainSizeSectors;
    }
    return count;
}

P<CVMDKSpaceInfo> CVMDKSparseExtentFile::gatherSpaceInfo() {
    flushChanges();
    int64 payloadSize = 0;
    int64 payloadSizeInFile = 0;
    for (int64 i = 0; i < m_grainDirectory->getGrainCount();) {
        bool hasSlot = false;
        const int64 runEnd = i + m_grainDirectory->findSlotRun(i, hasSlot);
        payloadSize += hasSlot ? (runEnd - i) * m_grainSizeBytes : 0;
        for (; hasSlot && m_compressed && i < runEnd; ++i) {
            int64 grainPosSectors = 0;
            int64 slotSizeSectors = 0;
            m_grainDirectory->findGrainEntry(i, grainPosSectors, slotSizeSectors);
            payloadSizeInFile += slotSizeSectors * vmdkSectorSize;
        }
        i = runEnd;
    }
    if (!m_compressed)
        payloadSizeInFile = payloadSize;
    const int64 headerSize = static_cast<int64>(m_header->getOverheadSectors()) * vmdkSectorSize;
    int64 deadSpace = m_stream->getLength() - headerSize - payloadSizeInFile;
    if (deadSpace < 0) {
        logWarning("Calculated negative dead space value for VMDK extent file '" + getURI().toString(true) +
                   "' (deadSpace: " + toDecimal(deadSpace) + ", headerSize: " + toDecimal(headerSize) +
                   ", payloadSize: " + toDecimal(payloadSize) +
                   ", payloadSizeInFile: " + toDecimal(payloadSizeInFile) + ")");
        deadSpace = 0;
    }
    P<CVMDKSpaceInfo> info(new CVMDKSpaceInfo);
    info->setPayloadSize(payloadSize);
    info->setPayloadSizeInFile(payloadSizeInFile);
    info->setHeaderSize(headerSize);
    info->setDeadSpaceSize(deadSpace);
    return info;
}

} // namespace tessel
