#include "disk/CCheckedExtent.h"

#include "lum/Numbers.h"
#include "tessel/CVMDKGrainDirectory.h"
#include "tessel/VMDKEmptyMetadata.h"

namespace tessel {

namespace {

constexpr int64 entryBytes = 4;
constexpr uint64 maxSectors = static_cast<uint64>(INT64_MAX / vmdkSectorSize);

String describeNumber(const char* name, uint64 value, uint64 smallest, uint64 largest) {
    if (value >= smallest && value <= largest)
        return String();
    return String("the header has an invalid ") + name + ": " + toDecimal(value) +
           " (allowed: " + toDecimal(smallest) + " to " + toDecimal(largest) + ")";
}

int64 countTables(const CVMDKSparseExtentHeader& header) {
    return CVMDKGrainDirectory::calcExtentGrainTableCount(static_cast<int64>(header.getCapacitySectors()),
                                                          static_cast<int64>(header.getGrainSizeSectors()),
                                                          static_cast<int>(header.getGrainTableEntryCount()));
}

/// Whether the directories lie in the file.
String findDirectoryProblem(const CVMDKSparseExtentHeader& header, int64 fileBytes) {
    const int64 directoryBytes = countTables(header) * entryBytes;
    const int64 lastPos = fileBytes < directoryBytes ? 0 : (fileBytes - directoryBytes) / vmdkSectorSize;
    if (lastPos < 1 || directoryBytes > INT32_MAX)
        return "the header has an invalid capacity: " + toDecimal(header.getCapacitySectors()) +
               " sectors (a grain directory of " + toDecimal(directoryBytes) +
               " bytes does not fit the file of " + toDecimal(fileBytes) + " bytes)";
    const auto last = static_cast<uint64>(lastPos);
    const String problem =
        describeNumber("grain directory offset", header.getGrainDirectoryOffsetSectors(), 1, last);
    return problem.isEmpty() ? describeNumber("redundant grain directory offset",
                                              header.getRedundantGrainDirectoryOffsetSectors(), 0, last)
                             : problem;
}

} // namespace

String CCheckedExtent::findHeaderProblem(const CVMDKSparseExtentHeader& header, int64 fileBytes) {
    using Header = CVMDKSparseExtentHeader;
    const bool isCompressed = (header.getFlags() & Header::Flag_Compressed) != 0;
    if (isCompressed != ((header.getFlags() & Header::Flag_MetaMarkers) != 0))
        return "the header has only one of the flags for compressed grains and for markers: 0x" +
               toHexString(header.getFlags());
    for (const String& problem :
         {describeNumber("version", header.getVersion(), 1, 3),
          describeNumber("capacity", header.getCapacitySectors(), 0, maxSectors),
          describeNumber("grain size", header.getGrainSizeSectors(), 1,
                         CVMDKGrainDirectory::maxGrainSizeSectors),
          describeNumber("number of entries of a grain table", header.getGrainTableEntryCount(), 1,
                         CVMDKGrainDirectory::maxEntriesPerTable),
          describeNumber("overhead", header.getOverheadSectors(), 0, maxSectors)})
        if (!problem.isEmpty())
            return problem;
    return findDirectoryProblem(header, fileBytes);
}

CCheckedExtent::CCheckedExtent(const UExtentLine& line, int64 index, IIOStream* stream, int64 fileBytes,
                               const CVMDKSparseExtentHeader& header, CCheckSink& sink)
    : m_line(line),
      m_index(index),
      m_stream(stream),
      m_fileBytes(fileBytes),
      m_sink(&sink),
      m_isCompressed((header.getFlags() & CVMDKSparseExtentHeader::Flag_Compressed) != 0),
      m_capacitySectors(static_cast<int64>(header.getCapacitySectors())),
      m_grainSizeSectors(static_cast<int64>(header.getGrainSizeSectors())),
      m_entriesPerTable(static_cast<int>(header.getGrainTableEntryCount())),
      m_directoryPosSectors(static_cast<int64>(header.getGrainDirectoryOffsetSectors())),
      m_redundantDirectoryPosSectors(static_cast<int64>(header.getRedundantGrainDirectoryOffsetSectors())),
      m_overheadSectors(static_cast<int64>(header.getOverheadSectors())),
      m_grainCount(CVMDKGrainDirectory::calcExtentGrainCount(m_capacitySectors, m_grainSizeSectors)),
      m_tableCount(countTables(header)) {}

int64 CCheckedExtent::getFileSectors() const noexcept {
    return divideRoundingUp(m_fileBytes, vmdkSectorSize);
}

int64 CCheckedExtent::getDirectorySectors() const noexcept {
    return vmdkDirectorySectors(m_tableCount);
}

int64 CCheckedExtent::getStartGrainIndex() const noexcept {
    return divideRoundingUp(m_line.startSector, m_grainSizeSectors);
}

int64 CCheckedExtent::calcDiskPosition(int64 grainIndex) const noexcept {
    int64 position = -1; // both parts are below 2^63 bytes, their sum may not be
    tryAdd(m_line.startSector * vmdkSectorSize, grainIndex * getGrainSizeBytes(), position);
    return position;
}

bool CCheckedExtent::isInFile(int64 posSectors, int64 sizeBytes) const noexcept {
    return posSectors <= m_fileBytes / vmdkSectorSize &&
           posSectors * vmdkSectorSize <= m_fileBytes - sizeBytes;
}

bool CCheckedExtent::tryRead(int64 position, void* buffer, int64 size) {
    try {
        m_stream->seek(position);
        m_stream->read(buffer, static_cast<int>(size));
        return true;
    } catch (const CError& error) {
        m_readError = error.getMessage();
        return false;
    }
}

UVMDKCheckFinding CCheckedExtent::makeFinding(UVMDKCheckFinding::Kind kind, const String& message) const {
    UVMDKCheckFinding finding;
    finding.kind = kind;
    finding.uri = m_line.uri;
    finding.extentIndex = m_index;
    finding.message = message;
    return finding;
}

UVMDKCheckFinding CCheckedExtent::makeTableFinding(UVMDKCheckFinding::Kind kind, int64 tableIndex,
                                                   const String& message) const {
    UVMDKCheckFinding finding = makeFinding(kind, message);
    finding.tableIndex = tableIndex;
    return finding;
}

UVMDKCheckFinding CCheckedExtent::makeGrainFinding(UVMDKCheckFinding::Kind kind, int64 grainIndex,
                                                   const String& message) const {
    UVMDKCheckFinding finding = makeTableFinding(kind, grainIndex / m_entriesPerTable, message);
    finding.grainIndex = grainIndex;
    finding.diskPosition = calcDiskPosition(grainIndex);
    return finding;
}

UVMDKCheckFinding CCheckedExtent::makeUnreadable(UVMDKCheckFinding finding, const String& what) const {
    finding.kind = UVMDKCheckFinding::Kind_Unreadable;
    finding.severity = UVMDKCheckFinding::Severity_Unchecked;
    finding.message = what + " cannot be read: " + m_readError;
    return finding;
}

} // namespace tessel
