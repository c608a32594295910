#include "disk/CExtentChecker.h"

#include "disk/CCheckedExtent.h"
#include "disk/CGrainTablesChecker.h"
#include "lum/CBufferStream.h"
#include "lum/CFileSystemError.h"
#include "lum/CIOError.h"
#include "lum/Numbers.h"
#include "sigil/ConstantTime.h"
#include "tessel/CVMDKGrainTable.h"
#include "tessel/VMDKEmptyMetadata.h"
#include "tessel/VMDKFileReference.h"
#include "tessel/VMDKMarker.h"

#include <algorithm>

namespace tessel {

namespace {

bool isSameHash(const TBuffer<unsigned char>& a, const TBuffer<unsigned char>& b) noexcept {
    return a.getUsed() == b.getUsed() &&
           sigil::isEqualInConstantTime(a.getData(), b.getData(), static_cast<std::size_t>(a.getUsed()));
}

using Finding = UVMDKCheckFinding;
using Header = CVMDKSparseExtentHeader;

/// Footer marker, footer, end-of-stream marker.
constexpr int64 trailSectors = 3;
constexpr int64 trailSize = trailSectors * vmdkSectorSize;
constexpr uint64 directoryAtEnd = 0xFFFFFFFFFFFFFFFF;
constexpr int encryptionAlgorithmAES256CBC = 1;
constexpr int keyHashAlgorithmSHA256 = 1;
/// Slot size tables whose markers are looked for.
constexpr int64 mostMarkers = 64;

P<Header> loadHeader(IIOStream& stream, int64 position) {
    stream.seek(position);
    CDataInStream in(&stream);
    P<Header> header(new Header);
    header->load(in);
    return header;
}

TBuffer<unsigned char> makeTrail(Header& header) {
    TBuffer<unsigned char> trail;
    const TBuffer<unsigned char> zeros(vmdkSectorSize);
    const P<CBufferStream> stream(new CBufferStream(&trail, 1.0));
    CDataOutStream out(stream.get());
    writeVMDKMarker(out, MarkerFooter, 1, zeros);
    header.store(out);
    writeVMDKMarker(out, MarkerEndOfStream, 0, zeros);
    return trail;
}

bool isMarkerAt(CCheckedExtent& extent, int64 position, VMDKMarkerID type, int64* value = nullptr) {
    unsigned char sector[vmdkSectorSize];
    return position >= 0 && position <= extent.getFileBytes() - vmdkSectorSize &&
           extent.tryRead(position, sector, vmdkSectorSize) && isVMDKMarker(sector, type, value);
}

/// The first byte of the file that is not as the trail wants it; -1 when the trail stands there.
int64 findTrailDifference(CCheckedExtent& extent, const TBuffer<unsigned char>& trail, int64 position) {
    TBuffer<unsigned char> found(trailSize);
    if (position < 0 || position > extent.getFileBytes() - trailSize ||
        !extent.tryRead(position, found.getData(), trailSize))
        return std::max<int64>(position, 0);
    const auto* const end = trail.getData() + trailSize;
    const auto* const difference = std::mismatch(trail.getData(), end, found.getData()).first;
    return difference == end ? -1 : position + (difference - trail.getData());
}

/// Where the marker of the slot size directory may stand: by both directories, or by the one that is not
/// damaged.
TArray<int64> listSlotSizeMarkerSectors(CCheckedExtent& extent) {
    const int64 last = (extent.getTableCount() - 1) * 4;
    const int64 tableSectors = divideRoundingUp(extent.getEntriesPerTable() * 4, vmdkSectorSize);
    TArray<int64> sectors;
    for (const int64 directory :
         {extent.getDirectoryPosSectors(), extent.getRedundantDirectoryPosSectors()}) {
        uint32 entry = 0;
        if (directory == 0)
            continue;
        if (extent.getTableCount() == 0)
            sectors.push_back(directory + 1);
        else if (extent.tryRead(directory * vmdkSectorSize + last, &entry, sizeof entry))
            sectors.push_back(entry + tableSectors);
    }
    std::sort(sectors.rbegin(), sectors.rend());
    return sectors;
}

/// The sector of the slot size directory; 0 when there is none.
int64 findSlotSizeDirectory(CCheckedExtent& extent) {
    for (const int64 marker : listSlotSizeMarkerSectors(extent)) {
        int64 value = 0;
        if (marker < extent.getOverheadSectors() &&
            isMarkerAt(extent, marker * vmdkSectorSize, MarkerSlotSizeDirectory, &value) &&
            value == extent.getDirectorySectors() && extent.isInFile(marker + 1, value * vmdkSectorSize))
            return marker + 1;
    }
    return 0;
}

/// Whether slot sizes were there once, though their directory cannot be found.
bool hasTracesOfSlotSizes(CCheckedExtent& extent) {
    for (const int64 marker : listSlotSizeMarkerSectors(extent)) {
        if (isMarkerAt(extent, marker * vmdkSectorSize, MarkerSlotSizeDirectory))
            return true;
        for (int64 i = 0; i < std::min(extent.getTableCount(), mostMarkers); ++i) {
            const int64 sector =
                marker + 1 + extent.getDirectorySectors() + i * (1 + vmdkSlotSizeTableSectors);
            if (isMarkerAt(extent, sector * vmdkSectorSize, MarkerSlotSizeTable))
                return true;
        }
    }
    return false;
}

} // namespace

void CExtentChecker::check(const UExtentLine& line, int64 index) {
    const P<IIOStream> stream = openFile(line, index);
    if (!stream)
        return;
    m_sink->onExtent();
    try {
        const P<Header> header = chooseHeader(line, index, *stream);
        if (!header)
            return;
        CCheckedExtent extent(line, index, stream.get(), stream->getLength(), *header, *m_sink);
        checkFit(extent, *header);
        checkContents(extent, *header);
    } catch (const CError& error) {
        if (m_sink->hasReportThrown())
            throw;
        Finding finding = makeFinding(Finding::Kind_Unreadable, line, index,
                                      "the file could not be checked any further: " + error.getMessage());
        finding.severity = Finding::Severity_Unchecked;
        m_sink->add(finding);
    }
}

UVMDKCheckFinding CExtentChecker::makeFinding(Finding::Kind kind, const UExtentLine& line, int64 index,
                                              const String& message) const {
    Finding finding;
    finding.kind = kind;
    finding.uri = line.uri;
    finding.extentIndex = index;
    finding.message = message;
    return finding;
}

P<IIOStream> CExtentChecker::openFile(const UExtentLine& line, int64 index) {
    Finding finding = makeFinding(Finding::Kind_ExtentMissing, line, index, "the extent's file is not there");
    try {
        return openVMDKFileStream(m_fileSystem, line.uri, IIOStream::Access_Read);
    } catch (const CFileSystemError& error) {
        if (error.getProblem() != CFileSystemError::Problem_NotFound) {
            finding.kind = Finding::Kind_Unreadable;
            finding.severity = Finding::Severity_Unchecked;
            finding.message = "the extent's file cannot be opened: " + error.getMessage();
        } else if (m_disk->isOnDemand && index > 0) {
            finding.severity = Finding::Severity_Information;
            finding.message = "the extent has no file yet: nothing was written to it";
        }
    } catch (const CError& error) {
        finding.kind = Finding::Kind_Unreadable;
        finding.severity = Finding::Severity_Unchecked;
        finding.message = "the extent's file cannot be opened: " + error.getMessage();
    }
    m_sink->add(finding);
    return nullptr;
}

// --- Header ---

P<CVMDKSparseExtentHeader> CExtentChecker::findFooter(IIOStream& stream) {
    const int64 position = stream.getLength() - trailSize;
    if (position < vmdkSectorSize)
        return nullptr;
    try {
        unsigned char sector[vmdkSectorSize];
        stream.seek(position);
        stream.read(sector, vmdkSectorSize);
        if (!isVMDKMarker(sector, MarkerFooter, nullptr))
            return nullptr;
        P<Header> footer = loadHeader(stream, position + vmdkSectorSize);
        const bool isUsable = footer->getGrainDirectoryOffsetSectors() != directoryAtEnd &&
                              (footer->getFlags() & Header::Flag_Compressed) != 0 &&
                              (footer->getFlags() & Header::Flag_ZeroGrainEntry) == 0 &&
                              CCheckedExtent::findHeaderProblem(*footer, stream.getLength()).isEmpty();
        return isUsable ? footer : nullptr;
    } catch (const CError&) {
        return nullptr;
    }
}

/// Whether a header leads to slot sizes.
bool CExtentChecker::leadsToSlotSizes(const UExtentLine& line, int64 index, IIOStream& stream,
                                      const Header& header) {
    CCheckedExtent extent(line, index, &stream, stream.getLength(), header, *m_sink);
    return extent.isCompressed() && findSlotSizeDirectory(extent) != 0;
}

/// The header to go by, which may be the footer; null, after telling why, when there is none.
P<CVMDKSparseExtentHeader> CExtentChecker::chooseHeader(const UExtentLine& line, int64 index,
                                                        IIOStream& stream) {
    Finding finding = makeFinding(Finding::Kind_HeaderInvalid, line, index, String());
    finding.position = 0;
    P<Header> header;
    const P<Header> footer = findFooter(stream);
    try {
        header = loadHeader(stream, 0);
        if ((header->getFlags() & Header::Flag_ZeroGrainEntry) != 0 && !footer) {
            finding.kind = Finding::Kind_NotSupported;
            finding.severity = Finding::Severity_Unchecked;
            finding.message = "the extent marks grains of zeros in its tables, which is not supported";
        } else if (header->getGrainDirectoryOffsetSectors() == directoryAtEnd &&
                   !(footer && leadsToSlotSizes(line, index, stream, *footer))) {
            finding.kind = Finding::Kind_NotSupported;
            finding.severity = Finding::Severity_Unchecked;
            finding.message = "only the footer says where the grain directory is, which is not supported";
        } else {
            finding.message = CCheckedExtent::findHeaderProblem(*header, stream.getLength());
            const bool isUsable = finding.message.isEmpty();
            if (isUsable && (!footer || leadsToSlotSizes(line, index, stream, *header) ||
                             !leadsToSlotSizes(line, index, stream, *footer)))
                return header;
            if (isUsable) {
                finding.kind = Finding::Kind_TrailDiffers;
                finding.message = "the header, which differs from the footer, leads to no slot sizes";
            }
        }
    } catch (const CError& error) {
        const auto* const ioError = dynamic_cast<const CIOError*>(&error);
        if (ioError && ioError->getCode() == CIOError::Code_ReadFailed) {
            finding.kind = Finding::Kind_Unreadable;
            finding.severity = Finding::Severity_Unchecked;
        }
        finding.message = "the header cannot be used: " + error.getMessage();
    }
    const bool canUseFooter = footer && finding.kind != Finding::Kind_NotSupported;
    if (canUseFooter)
        finding.message += "; the footer is whole, and used instead";
    m_sink->add(finding);
    return canUseFooter ? footer : nullptr;
}

void CExtentChecker::checkFit(const CCheckedExtent& extent, const Header& header) {
    const auto add = [&](const String& message) {
        Finding finding = extent.makeFinding(Finding::Kind_ExtentMismatch, message);
        finding.position = 0;
        extent.add(finding);
    };
    if (m_disk->grainSizeSectors == 0)
        m_disk->grainSizeSectors = extent.getGrainSizeSectors();
    if (extent.getGrainSizeSectors() != m_disk->grainSizeSectors)
        add("the extent has grains of " + toDecimal(extent.getGrainSizeSectors()) + " sectors, the disk of " +
            toDecimal(m_disk->grainSizeSectors));
    if (extent.isCompressed() != m_disk->isCompressed)
        add(extent.isCompressed() ? "the extent is compressed, the disk is not"
                                  : "the extent is not compressed, but the disk is");
    if (extent.getCapacitySectors() < extent.getLine().sizeSectors)
        add("the extent has " + toDecimal(extent.getCapacitySectors()) +
            " sectors, its line in the descriptor " + toDecimal(extent.getLine().sizeSectors));
    if (m_disk->isChild && extent.getLine().startSector % extent.getGrainSizeSectors() != 0)
        add("the extent of a child begins within a grain of the disk (sector " +
            toDecimal(extent.getLine().startSector) + ")");
    checkEncryption(extent, header);
}

void CExtentChecker::checkEncryption(const CCheckedExtent& extent, const Header& header) {
    const bool isEncrypted = header.getEncryptionExtensionEnabled() && header.getEncryptionAlgorithm() != 0;
    String problem;
    if (isEncrypted != m_disk->isEncrypted)
        problem = isEncrypted ? "the extent is encrypted, the disk is not"
                              : "the extent is not encrypted, but the disk is";
    else if (isEncrypted && (header.getEncryptionAlgorithm() != encryptionAlgorithmAES256CBC ||
                             header.getEncryptionKeyHashAlgorithm() != keyHashAlgorithmSHA256))
        problem =
            "the header has unknown algorithms of encryption: " + toDecimal(header.getEncryptionAlgorithm()) +
            " and " + toDecimal(header.getEncryptionKeyHashAlgorithm()) + " (known: 1 and 1)";
    else if (isEncrypted && !isSameHash(header.getEncryptionKeyHash(), m_disk->keyHash))
        problem = "the extent is encrypted with another key than the disk";
    if (problem.isEmpty())
        return;
    Finding finding = extent.makeFinding(Finding::Kind_ExtentMismatch, problem);
    finding.position = 0;
    extent.add(finding);
}

// --- Contents ---

void CExtentChecker::markMetadata(const CCheckedExtent& extent, const Header& header,
                                  CGrainTablesChecker& tables) {
    const auto take = [&](const char* name, int64 posSectors, int64 sectors) {
        if (tables.addMetadata(posSectors, sectors))
            return;
        Finding finding =
            extent.makeFinding(Finding::Kind_HeaderInvalid, String("the header has ") + name +
                                                                " where other metadata is (sector " +
                                                                toDecimal(posSectors) + ")");
        finding.position = 0;
        extent.add(finding);
    };
    take("itself", 0, 1);
    take("the grain directory", extent.getDirectoryPosSectors(), extent.getDirectorySectors());
    if (extent.getRedundantDirectoryPosSectors() != 0)
        take("the redundant grain directory", extent.getRedundantDirectoryPosSectors(),
             extent.getDirectorySectors());
    const uint64 offset = header.getDescriptorOffsetSectors();
    const uint64 size = header.getDescriptorSizeSectors();
    const auto fileSectors = static_cast<uint64>(extent.getFileSectors());
    if (offset != 0 && size != 0 && offset < fileSectors && size <= fileSectors - offset)
        take("the descriptor", static_cast<int64>(offset), static_cast<int64>(size));
    if (extent.getOverheadSectors() > extent.getFileSectors()) {
        Finding finding =
            extent.makeFinding(Finding::Kind_HeaderInvalid,
                               "the header has metadata of " + toDecimal(extent.getOverheadSectors()) +
                                   " sectors in a file of " + toDecimal(extent.getFileSectors()));
        finding.position = 0;
        extent.add(finding);
    }
}

/// The sector of the slot size directory, whose place is taken; 0, after telling so, when there is none.
int64 CExtentChecker::takeSlotSizeDirectory(CCheckedExtent& extent, CGrainTablesChecker& tables,
                                            bool& isOwn) {
    const int64 found = findSlotSizeDirectory(extent);
    if (found != 0 && tables.addMetadata(found - 1, 1 + extent.getDirectorySectors())) {
        isOwn = true;
        return found;
    }
    isOwn = found != 0 || hasTracesOfSlotSizes(extent);
    Finding finding =
        extent.makeFinding(Finding::Kind_SlotSizesMissing,
                           "the slot size directory is not found, though there are slot size tables");
    if (!isOwn) {
        finding.kind = Finding::Kind_NotSupported;
        finding.severity = Finding::Severity_Unchecked;
        finding.message =
            "the extent was compressed by another program, which records no slot sizes; this is not "
            "supported";
    }
    extent.add(finding);
    return 0;
}

void CExtentChecker::checkContents(CCheckedExtent& extent, Header& header) {
    // Without a key, what is encrypted looks like damage.
    const bool quick =
        m_disk->quick || (m_disk->isEncrypted && extent.isCompressed() && m_disk->keys == nullptr);
    CGrainRecordChecker records(extent, m_disk->isEncrypted, m_disk->keys);
    CGrainTablesChecker tables(extent, records, quick);
    markMetadata(extent, header, tables);
    bool isOwn = false;
    int64 slotSizeDirectory = 0;
    if (extent.isCompressed()) {
        slotSizeDirectory = takeSlotSizeDirectory(extent, tables, isOwn);
        const int64 trailPosition = extent.getFileBytes() - trailSize;
        if (isOwn && isMarkerAt(extent, trailPosition, MarkerFooter)) {
            const int64 trail = trailPosition / vmdkSectorSize;
            tables.addMetadata(trail, extent.getFileSectors() - trail);
        }
    }
    tables.check(slotSizeDirectory);
    if (isOwn)
        checkTrail(extent, header, tables.getSlotsEnd(), records);

    const int64 dead = tables.countDeadSectors(extent.getFileSectors());
    const bool areSlotsKnown = !extent.isCompressed() || slotSizeDirectory != 0;
    if (dead == 0 || !areSlotsKnown)
        return;
    Finding finding =
        extent.makeFinding(Finding::Kind_DeadSpace,
                           toDecimal(dead * vmdkSectorSize) + " bytes of the file are not used any more");
    finding.severity = Finding::Severity_Information;
    extent.add(finding);
}

// A slot that is appended goes where the trail was, and the next flush writes the trail behind it. What a
// writer leaves that ends before is no damage: what was flushed is there, and the next writer appends behind
// all of it.
void CExtentChecker::checkTrail(CCheckedExtent& extent, Header& header, int64 slotsEnd,
                                CGrainRecordChecker& records) {
    const TBuffer<unsigned char> trail = makeTrail(header);
    const int64 position = extent.getFileBytes() - trailSize;
    const int64 difference = findTrailDifference(extent, trail, position);
    if (difference < 0)
        return;
    Finding finding = extent.makeFinding(Finding::Kind_TrailDiffers, String());
    finding.position = difference;
    if (!isMarkerAt(extent, position, MarkerFooter) &&
        (records.isAnyRecord(slotsEnd) ||
         findTrailDifference(extent, trail, slotsEnd * vmdkSectorSize) < 0)) {
        finding.kind = Finding::Kind_WriteInterrupted;
        finding.severity = Finding::Severity_Information;
        finding.position = slotsEnd * vmdkSectorSize;
        finding.message = "a writer ended without a flush: behind the last slot stands what no table names";
    } else if (difference >= position + vmdkSectorSize && difference < position + 2 * vmdkSectorSize) {
        finding.message = "the footer differs from the header, first in byte " +
                          toDecimal(difference - position - vmdkSectorSize);
    } else {
        finding.message = "the file does not end with the trail that its header gives";
    }
    extent.add(finding);
}

} // namespace tessel
