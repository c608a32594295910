#include "tessel/CVMDKDescriptorAccessor.h"

#include "lum/CIOError.h"
#include "lum/CMTRand.h"
#include "lum/CMutexLock.h"
#include "lum/Logging.h"
#include "lum/Numbers.h"
#include "tessel/CVMDKSparseExtentHeader.h"

#include <algorithm>

namespace tessel {

namespace {

constexpr unsigned int noContentID = 0xFFFFFFFF;

String uriText(IStreamBase& stream) {
    return stream.getURI().toString(true);
}

/// A position or size of the header in bytes.
int64 sectorsToBytes(IStreamBase& stream, const char* field, unsigned long long sectors) {
    constexpr unsigned long long maxSectors = static_cast<unsigned long long>(INT64_MAX) / vmdkSectorSize;
    if (sectors > maxSectors)
        throw CIOError(CIOError::Code_BadFormat,
                       String("VMDK sparse header has an invalid ") + field + ": " + toDecimal(sectors) +
                           " (allowed: 0 to " + toDecimal(maxSectors) + ").",
                       CProps().add("uri", uriText(stream)).add(field, sectors));
    return static_cast<int64>(sectors) * vmdkSectorSize;
}

} // namespace

CVMDKDescriptorAccessor::CVMDKDescriptorAccessor(IIOStream* stream, IIOStream::Access access)
    : m_stream(stream), m_access(access) {
    const int64 oldPosition = stream->getPosition();
    CDataInStream in(stream);
    in.seek(0);
    const uint32 magic = in.readUInt32();
    m_embedded = magic == CVMDKSparseExtentHeader::magicNumber ||
                 magic == CVMDKSparseExtentHeader::magicNumberEncrypted;
    if (m_embedded) {
        in.seek(0);
        const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
        header->load(in);
        if (header->getVersion() < 1 || header->getVersion() > 3)
            throw CIOError(CIOError::Code_UnsupportedVersion,
                           "VMDK file has an unsupported version: " + toDecimal(header->getVersion()),
                           CProps().add("uri", uriText(*stream)));
        m_descriptorPosition =
            sectorsToBytes(*stream, "descriptorOffset", header->getDescriptorOffsetSectors());
        m_descriptorSize = sectorsToBytes(*stream, "descriptorSize", header->getDescriptorSizeSectors());
        if (m_descriptorPosition < 1 || m_descriptorSize < 1)
            throw CIOError(CIOError::Code_BadFormat, "No VMDK descriptor found in VMDK file.",
                           CProps().add("uri", uriText(*stream)));
    } else {
        logInfo("Unsupported VMDK type identifier (0x" + toHexString(magic) +
                "). Handle as not embedded descriptor...");
        m_descriptorSize = stream->getLength();
    }
    if (m_descriptorSize > maxDescriptorSize)
        throw CIOError(CIOError::Code_BadFormat,
                       "VMDK descriptor is too big (" + toDecimal(m_descriptorSize) + " bytes).",
                       CProps().add("uri", uriText(*stream)));
    TBuffer<unsigned char> text(m_descriptorSize);
    in.seek(m_descriptorPosition);
    in.read(text.getData(), static_cast<int>(m_descriptorSize));
    m_descriptor = parse(text, stream->getURI());
    in.seek(oldPosition);
}

P<CVMDKDescriptor> CVMDKDescriptorAccessor::parse(const TBuffer<unsigned char>& text, const CURI& uri) {
    const unsigned char* const begin = text.getData();
    const unsigned char* const end = std::find(begin, begin + text.getUsed(), 0);
    const int64 lineFeeds = std::count(begin, end, '\n');
    const int64 lines = lineFeeds + (end != begin && end[-1] != '\n' ? 1 : 0);
    if (lines > maxLineCount)
        throw CIOError(CIOError::Code_BadFormat,
                       "VMDK descriptor has too many lines: " + toDecimal(lines) +
                           " (allowed: " + toDecimal(maxLineCount) + ").",
                       CProps().add("uri", uri.toString(true)).add("lines", lines));
    return new CVMDKDescriptor(text);
}

void CVMDKDescriptorAccessor::verifyHaveWriteAccess(const char* method) const {
    if (m_access != IIOStream::Access_ReadWrite)
        throw CError(String("Internal error: CVMDKDescriptorAccessor::") + method +
                     " was called, but the accessor was not opened for writing.");
}

unsigned int CVMDKDescriptorAccessor::changeContentID() {
    verifyHaveWriteAccess("changeContentID");
    const unsigned int oldID = m_descriptor->getContentID();
    unsigned int newID = 0;
    do {
        const CMutexLock lock(CMTRand::getGlobalInstanceMutex());
        newID = CMTRand::getGlobal()->rand32();
    } while (newID == 0 || newID == noContentID || newID == oldID);
    m_descriptor->setContentID(newID);
    return newID;
}

void CVMDKDescriptorAccessor::storeDescriptor(bool flush) {
    verifyHaveWriteAccess("storeDescriptor");
    const int64 oldPosition = m_stream->getPosition();
    const TBuffer<unsigned char> zeros(m_descriptorSize);
    m_stream->seek(m_descriptorPosition);
    m_descriptor->store(*m_stream, static_cast<int>(m_descriptorSize), zeros);
    if (flush)
        m_stream->flush();
    m_stream->seek(oldPosition);
}

} // namespace tessel
