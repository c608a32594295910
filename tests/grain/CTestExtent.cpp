#include "CTestExtent.h"

#include "lum/CDataInStream.h"
#include "lum/CIOError.h"
#include "lum/COptimizingIOStream.h"
#include "lum/LittleEndian.h"
#include "sigil/CCipher_AES256CBC.h"
#include "tessel/VMDKEmptyExtentFile.h"

namespace tessel::test {

namespace {

constexpr int64 trailBytes = 3 * vmdkSectorSize;

} // namespace

CTestExtent::CTestExtent(const Settings& settings)
    : m_settings(settings),
      m_uri(String("memory:/disk/extent.vmdk")),
      m_memory(new CMemoryFileSystem),
      m_faults(new CFaultFileSystem(m_memory.get())),
      m_header(new CVMDKSparseExtentHeader) {
    createEmptyVMDKSparseExtentFile(m_memory.get(), m_uri, settings.compressed, settings.grainCount,
                                    settings.grainSizeSectors, Bytes(vmdkSectorSize), nullptr, 0, Bytes());
    const P<IIOStream> stream = openPlain();
    CDataInStream in(stream.get());
    m_header->load(in);
    if (settings.compressed)
        m_trail = file(fileLength() - trailBytes, trailBytes);
}

P<IIOStream> CTestExtent::openPlain() const {
    return m_memory->openFile(m_uri, IIOStream::Access_ReadWrite);
}

void CTestExtent::openDirectory(IIOStream::Access access, CVMDKGrainTableCache* cache) {
    const P<CVMDKGrainTableCache> keptCache(cache);
    close();
    m_access = access;
    m_recorder = new CRecordingStream(m_faults->openFile(m_uri, access).get());
    m_stream = m_recorder;
    if (m_settings.buffered)
        m_stream = new COptimizingIOStream(m_recorder.get());
    m_cache =
        keptCache ? keptCache : P<CVMDKGrainTableCache>(new CVMDKGrainTableCache(m_settings.cacheLimit));
    m_directory = new CVMDKGrainDirectory(
        m_stream.get(), access, static_cast<int64>(m_header->getGrainDirectoryOffsetSectors()),
        static_cast<int64>(m_header->getRedundantGrainDirectoryOffsetSectors()),
        static_cast<int64>(m_header->getCapacitySectors()), m_settings.grainSizeSectors,
        static_cast<int>(m_header->getGrainTableEntryCount()), m_settings.compressed, m_cache.get(),
        static_cast<int64>(m_header->getOverheadSectors()));
}

void CTestExtent::open(IIOStream::Access access, CVMDKGrainTableCache* cache) {
    openDirectory(access, cache);
    m_allocator = new CVMDKGrainAllocator(m_stream.get(), access, m_settings.grainSizeSectors,
                                          m_settings.compressed ? 1 : m_settings.grainSizeSectors,
                                          m_directory.get(), m_trail);
    const P<sigil::ICipher> cipher = m_settings.encrypted ? new sigil::CCipher_AES256CBC : nullptr;
    m_grain = makeGrain(nullptr, cipher.get());
}

P<CVMDKGrain> CTestExtent::makeGrain(IVMDKDataProvider* provider, sigil::ICipher* cipher) const {
    return new CVMDKGrain(m_stream.get(), m_access, m_settings.grainSizeSectors, m_allocator.get(),
                          m_settings.compressed, m_settings.compressionLevel, provider, cipher,
                          cipher ? key() : TCryptBuffer<unsigned char>(), cipher ? baseIV() : Bytes());
}

void CTestExtent::useGrain(IVMDKDataProvider* provider, sigil::ICipher* cipher) {
    m_grain = makeGrain(provider, cipher);
}

void CTestExtent::close() {
    m_grain = nullptr;
    m_allocator = nullptr;
    m_directory = nullptr;
    m_cache = nullptr;
    m_stream = nullptr;
    m_recorder = nullptr;
}

void CTestExtent::flush() {
    if (m_grain && m_grain->isOpen())
        m_grain->flushChangesToStream();
    if (m_allocator)
        m_allocator->flushChangesToStream();
    m_directory->flushChangesInOrder();
    m_stream->flush();
}

void CTestExtent::endFaults() const {
    m_faults->clearRules();
    try {
        m_stream->flush();
    } catch (const CIOError&) { // NOLINT(bugprone-empty-catch): as expected
    }
}

CTestExtent::Info CTestExtent::info(int64 grainIndex) const {
    Info info;
    m_directory->getGrainInfo(grainIndex, info.posSectors, info.slotSizeSectors);
    return info;
}

void CTestExtent::openGrain(int64 grainIndex) const {
    m_grain->close(); // what it holds may give this very grain a slot
    const Info place = info(grainIndex);
    m_grain->open(grainIndex, firstDiskGrain + grainIndex, place.posSectors, place.slotSizeSectors);
}

void CTestExtent::write(int64 grainIndex, int64 offset, const Bytes& bytes) const {
    openGrain(grainIndex);
    m_grain->seek(offset);
    m_grain->write(bytes.getData(), static_cast<int>(bytes.getUsed()));
}

Bytes CTestExtent::read(int64 grainIndex) const {
    openGrain(grainIndex);
    Bytes bytes(grainBytes());
    m_grain->read(bytes.getData(), static_cast<int>(bytes.getUsed()));
    return bytes;
}

Bytes CTestExtent::file() const {
    return readAll(*openPlain());
}

Bytes CTestExtent::file(int64 position, int64 count) const {
    const P<IIOStream> stream = openPlain();
    Bytes bytes(count);
    stream->seek(position);
    stream->read(bytes.getData(), static_cast<int>(count));
    return bytes;
}

int64 CTestExtent::fileLength() const {
    return openPlain()->getLength();
}

void CTestExtent::patchFile(int64 position, const Bytes& bytes) const {
    const P<IIOStream> stream = openPlain();
    stream->seek(position);
    stream->write(bytes.getData(), static_cast<int>(bytes.getUsed()));
}

void CTestExtent::setFileLength(int64 length) const {
    openPlain()->setLength(length);
}

uint32 CTestExtent::fileUInt32(int64 position) const {
    return loadLittleEndian<uint32>(file(position, 4).getData());
}

void CTestExtent::patchUInt32(int64 position, uint32 value) const {
    Bytes bytes(4);
    storeLittleEndian(bytes.getData(), value);
    patchFile(position, bytes);
}

const TCryptBuffer<unsigned char>& CTestExtent::key() {
    static const TCryptBuffer<unsigned char> key = [] {
        TCryptBuffer<unsigned char> bytes(32);
        for (int i = 0; i < 32; ++i)
            bytes[i] = static_cast<unsigned char>(0xA0 + i);
        return bytes;
    }();
    return key;
}

const Bytes& CTestExtent::baseIV() {
    static const Bytes iv = bytesOf(
        {0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C, 0x1D, 0x1E, 0x1F});
    return iv;
}

} // namespace tessel::test
