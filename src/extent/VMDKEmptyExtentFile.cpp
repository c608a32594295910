#include "tessel/VMDKEmptyExtentFile.h"

#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"
#include "lum/Logging.h"
#include "lum/Numbers.h"
#include "tessel/CVMDKGrainDirectory.h"
#include "tessel/CVMDKSparseExtentHeader.h"
#include "tessel/VMDKEmptyMetadata.h"
#include "tessel/VMDKFileReference.h"
#include "tessel/VMDKMarker.h"

namespace tessel {

namespace {

constexpr int64 minZeros = 512;

struct UExtentPlan {
    bool compressed;
    int64 grainCount;
    int64 grainSizeSectors;
    const TBuffer<unsigned char>& zeros;
    CVMDKDescriptor* descriptor;
    int64 descriptorSizeSectors;
    const TBuffer<unsigned char>& encryptionKeyHash;
};

void verifyArguments(const UExtentPlan& plan) {
    const auto refuse = [](const String& problem) {
        throw CInvalidArgError("createEmptyVMDKSparseExtentFile", problem);
    };
    const auto verify = [&refuse](const char* name, int64 value, int64 smallest, int64 largest) {
        if (value < smallest || value > largest)
            refuse(String("Invalid ") + name + ": " + toDecimal(value) + " (allowed: " + toDecimal(smallest) +
                   " to " + toDecimal(largest) + ").");
    };
    constexpr int64 maxSectors = int64{1} << 32; // what a grain table entry can name
    verify("grain size in sectors", plan.grainSizeSectors, 1, CVMDKGrainDirectory::maxGrainSizeSectors);
    verify("number of grains", plan.grainCount, 0, maxSectors);
    if (plan.descriptor)
        verify("descriptor size in sectors", plan.descriptorSizeSectors, 1, INT32_MAX / vmdkSectorSize);
    if (plan.zeros.getUsed() < minZeros)
        refuse("The buffer of zeros is too small: " + toDecimal(plan.zeros.getUsed()) + " bytes (at least " +
               toDecimal(minZeros) + ").");
}

void initHeader(CVMDKSparseExtentHeader& header, const UExtentPlan& plan) {
    using Header = CVMDKSparseExtentHeader;
    unsigned int flags = Header::Flag_LineEndTest | Header::Flag_RedundantDirectory;
    if (plan.compressed)
        flags |= Header::Flag_Compressed | Header::Flag_MetaMarkers;
    header.setVersion(plan.compressed ? 3 : 1);
    header.setFlags(flags);
    const int64 capacitySectors = plan.grainCount * plan.grainSizeSectors;
    header.setCapacitySectors(static_cast<unsigned long long>(capacitySectors));
    header.setGrainSizeSectors(static_cast<unsigned long long>(plan.grainSizeSectors));
    header.setGrainTableEntryCount(static_cast<unsigned int>(vmdkGrainTableEntryCount));
    header.setCompressAlgorithm(plan.compressed ? 1 : 0);
    if (!plan.encryptionKeyHash.isEmpty()) {
        header.setEncryptionExtensionEnabled(true);
        header.setEncryptionAlgorthm(1);
        header.setEncryptionKeyHashAlgorthm(1);
        header.setEncryptionKeyHash(plan.encryptionKeyHash);
    }
}

// header | descriptor | redundant directory, tables | directory, tables | slot size directory, tables |
// padding to a grain | footer. The header comes twice: its offsets are known only at the end. The first one
// is durable before anything else, the second one after everything else, so that a file that was left
// half-made is known by its header without offsets.
void writeExtent(CDataOutStream& out, const UExtentPlan& plan) {
    IOutStream& stream = out.getStream();
    const auto sector = [&stream] {
        return static_cast<unsigned long long>(getStreamPositionVMDKSectors(stream));
    };
    const int64 tableCount = divideRoundingUp(plan.grainCount, vmdkGrainTableEntryCount);
    const int64 directorySectors = vmdkDirectorySectors(tableCount);
    const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    initHeader(*header, plan);
    stream.setLength(0); // whatever an older file held
    header->store(out);
    stream.flush();

    if (plan.descriptor) {
        header->setDescriptorOffsetSectors(sector());
        header->setDescriptorSizeSectors(static_cast<unsigned long long>(plan.descriptorSizeSectors));
        plan.descriptor->store(stream, static_cast<int>(plan.descriptorSizeSectors * vmdkSectorSize),
                               plan.zeros);
    }
    const auto writeDirectory = [&] {
        if (plan.compressed)
            writeVMDKMarker(out, MarkerGrainDirectory, directorySectors, plan.zeros);
        const unsigned long long start = sector();
        writeEmptyVMDKGrainDirectoryAndTables(out, tableCount, plan.zeros, plan.compressed);
        return start;
    };
    header->setRedundantGrainDirectoryOffsetSectors(writeDirectory());
    header->setGrainDirectoryOffsetSectors(writeDirectory());
    if (plan.compressed)
        writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(out, tableCount, plan.zeros);

    const int64 end = stream.getPosition();
    const int64 padding = roundUp(end, plan.grainSizeSectors * vmdkSectorSize) - end;
    vmdkWritePadding(stream, static_cast<int>(padding), plan.zeros);
    header->setOverheadSectors(sector());
    if (plan.compressed) {
        writeVMDKMarker(out, MarkerFooter, 1, plan.zeros);
        header->store(out);
        writeVMDKMarker(out, MarkerEndOfStream, 0, plan.zeros);
    }
    stream.flush();
    out.seek(0);
    header->store(out);
    stream.flush();
}

} // namespace

void createEmptyVMDKSparseExtentFile(IFileSystem* fileSystem, const CURI& uri, bool compressed,
                                     int64 grainCount, int64 grainSizeSectors,
                                     const TBuffer<unsigned char>& zeros, CVMDKDescriptor* descriptor,
                                     int64 descriptorSizeSectors,
                                     const TBuffer<unsigned char>& encryptionKeyHash) {
    const UExtentPlan plan{
        compressed,       grainCount, grainSizeSectors, zeros, descriptor, descriptorSizeSectors,
        encryptionKeyHash};
    verifyArguments(plan);
    P<IIOStream> stream = openVMDKFileStream(fileSystem, uri, IIOStream::Access_ReadWrite);
    try {
        CDataOutStream out(stream.get());
        writeExtent(out, plan);
        stream->close(); // here a failure is told
    } catch (const std::exception& error) {
        logError(error,
                 "Error in CVMDKDisk::createEmptySparseExtentFile ('" + uri.toString(true) +
                     "'). Deleting file and letting error through.",
                 "");
        try {
            try {
                stream->close(); // before the file goes; what is still to be written does not matter
            } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): see above
            }
            fileSystem->deleteFile(uri, true);
        } catch (const std::exception& deleteError) {
            logError(deleteError, "Error deleting half-finished extent file. Ignoring.", "");
        }
        throw;
    }
}

bool isHalfMadeVMDKSparseExtentFile(IFileSystem* fileSystem, const CURI& uri) {
    const P<IIOStream> stream = openVMDKFileStream(fileSystem, uri, IIOStream::Access_Read);
    if (stream->getLength() < vmdkSectorSize)
        return true; // not even the first header
    const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    try {
        CDataInStream in(stream.get());
        header->load(in);
    } catch (const CIOError& error) {
        if (error.getCode() == CIOError::Code_ReadFailed)
            throw;
        return false; // whoever opens it says what it is
    }
    return header->getGrainDirectoryOffsetSectors() == 0 && header->getOverheadSectors() == 0;
}

} // namespace tessel
