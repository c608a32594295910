#include "ExtentFixture.h"

#include "lum/LittleEndian.h"
#include "sigil/CCipher_AES256CBC.h"
#include "sigil/CDigestType_SHA256.h"
#include "tessel/CVMDKDescriptorAccessor.h"
#include "tessel/VMDKEmptyExtentFile.h"
#include "tessel/VMDKFileReference.h"

#include <random>

namespace tessel::test {

const CURI ExtentTest::extentURI(String("memory:/disks/disk-s001.vmdk"));
const CURI ExtentTest::mainURI(String("memory:/disks/disk.vmdk"));
const String ExtentTest::extentName = ExtentTest::extentURI.toString(true);

Bytes randomBytes(int64 count, unsigned int seed) {
    std::mt19937 twister(seed);
    Bytes bytes(count);
    for (int64 i = 0; i < count; ++i)
        bytes[i] = static_cast<unsigned char>(twister() >> 24);
    return bytes;
}

ExtentTest::ExtentTest() : m_cipher(new sigil::CCipher_AES256CBC), m_key(32), m_iv(randomBytes(16, 5)) {
    createMainFile();
    for (int i = 0; i < 32; ++i)
        m_key[i] = static_cast<unsigned char>(3 * i + 1);
    const P<sigil::IDigest> digest = sigil::CDigestType_SHA256().createDigest();
    digest->update(m_key.getData(), 32);
    digest->finish();
    m_keyHash.assign(digest->getBytes(), digest->getSizeBytes());
}

ExtentTest::~ExtentTest() = default;

void ExtentTest::createMainFile() {
    m_descriptor = new CVMDKDescriptor;
    m_descriptor->setVersion(1);
    m_descriptor->setContentID(oldContentID);
    m_descriptor->setParentContentID(0xFFFFFFFF);
    m_descriptor->setCreateType("twoGbMaxExtentSparse");
    m_memory->deleteFile(mainURI, true);
    const P<IIOStream> mainFile = m_memory->openFile(mainURI, IIOStream::Access_ReadWrite);
    m_descriptor->store(*mainFile, 1024, Bytes(1024));
    m_updater = new CVMDKContentIDUpdater(m_faults.get(), mainURI, m_descriptor.get());
}

void ExtentTest::TearDown() {
    EXPECT_THAT(takeLog(), ::testing::IsEmpty());
}

void ExtentTest::createExtent(const UExtentShape& shape, const CURI& uri) {
    createEmptyVMDKSparseExtentFile(m_memory.get(), uri, shape.compressed, shape.grainCount,
                                    shape.grainSizeSectors, Bytes(2048), nullptr, 0,
                                    shape.encrypted ? m_keyHash : Bytes());
}

P<CVMDKSparseExtentFile> ExtentTest::openExtent(const UExtentOpening& opening, const CURI& uri) {
    const P<IIOStream> stream = openExistingVMDKFileStream(m_faults.get(), uri, opening.access);
    return new CVMDKSparseExtentFile(stream.get(), opening.access, opening.startGrainIndex,
                                     opening.compressionLevel, m_cache.get(), opening.fallback,
                                     opening.withUpdater ? m_updater.get() : nullptr,
                                     opening.withCipher ? m_cipher.get() : nullptr, m_key, m_iv);
}

Bytes ExtentTest::readAt(IVMDKExtentFile& extent, int64 position, int64 count) {
    Bytes data(count);
    extent.seek(position);
    extent.read(data.getData(), static_cast<int>(count));
    return data;
}

void ExtentTest::writeAt(IVMDKExtentFile& extent, int64 position, const Bytes& data) {
    extent.seek(position);
    extent.write(data.getData(), static_cast<int>(data.getUsed()));
}

Bytes ExtentTest::loadFile(const CURI& uri) const {
    return readAll(*m_memory->openFile(uri, IIOStream::Access_Read));
}

void ExtentTest::storeFile(const Bytes& contents, const CURI& uri) {
    const P<IIOStream> stream = m_memory->openFile(uri, IIOStream::Access_ReadWrite);
    stream->setLength(0);
    stream->write(contents.getData(), static_cast<int>(contents.getUsed()));
}

void ExtentTest::patchFile(int64 offset, const Bytes& bytes) {
    const P<IIOStream> stream = m_memory->openFile(extentURI, IIOStream::Access_ReadWrite);
    stream->seek(offset);
    stream->write(bytes.getData(), static_cast<int>(bytes.getUsed()));
}

uint32 ExtentTest::loadNumber(int64 offset) const {
    unsigned char bytes[4];
    const P<IIOStream> stream = m_memory->openFile(extentURI, IIOStream::Access_Read);
    stream->seek(offset);
    stream->read(bytes, 4);
    return loadLittleEndian<uint32>(bytes);
}

unsigned int ExtentTest::getStoredContentID() const {
    const P<IIOStream> stream = m_memory->openFile(mainURI, IIOStream::Access_Read);
    return CVMDKDescriptorAccessor(stream.get(), IIOStream::Access_Read).getDescriptor()->getContentID();
}

TArray<std::string> ExtentTest::takeLog() {
    TArray<std::string> lines;
    for (const CLogRecorder::Entry& entry : m_log.takeEntries())
        if (entry.level == ILogSink::Level_Warning)
            lines.push_back("warning: " + entry.message.toUTF8Lossy());
        else if (entry.level == ILogSink::Level_Error)
            lines.push_back("error: " + entry.message.toUTF8Lossy());
    return lines;
}

} // namespace tessel::test
