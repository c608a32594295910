#pragma once

#include "disk/CCheckSink.h"
#include "disk/DiskKeys.h"
#include "disk/ExtentLines.h"
#include "lum/IFileSystem.h"
#include "tessel/CVMDKSparseExtentHeader.h"

namespace tessel {

class CCheckedExtent;
class CGrainRecordChecker;
class CGrainTablesChecker;

/// What all extents of a disk have in common.
struct UDiskToCheck {
    bool isCompressed = false;
    bool isEncrypted = false;
    bool isOnDemand = false;
    bool isChild = false;
    TBuffer<unsigned char> keyHash;
    /// Null where the contents of encrypted grains are not looked at.
    const UDiskKeys* keys = nullptr;
    bool quick = false;
    /// Of the first extent that tells; 0 until then.
    int64 grainSizeSectors = 0;
};

/// Checks the extents of a disk, one after the other.
class CExtentChecker {
public:
    /// All are borrowed. The checker sets the disk's grain size.
    CExtentChecker(IFileSystem* fileSystem, UDiskToCheck& disk, CCheckSink& sink)
        : m_fileSystem(fileSystem), m_disk(&disk), m_sink(&sink) {}

    /// Throws: what the report throws.
    void check(const UExtentLine& line, int64 index);

    /// The header in the footer that a file ends with; null when there is none that can be used.
    static P<CVMDKSparseExtentHeader> findFooter(IIOStream& stream);

private:
    using Header = CVMDKSparseExtentHeader;

    P<IIOStream> openFile(const UExtentLine& line, int64 index);
    P<Header> chooseHeader(const UExtentLine& line, int64 index, IIOStream& stream);
    bool leadsToSlotSizes(const UExtentLine& line, int64 index, IIOStream& stream, const Header& header);
    void checkFit(const CCheckedExtent& extent, const Header& header);
    void checkEncryption(const CCheckedExtent& extent, const Header& header);
    void checkContents(CCheckedExtent& extent, Header& header);
    void markMetadata(const CCheckedExtent& extent, const Header& header, CGrainTablesChecker& tables);
    int64 takeSlotSizeDirectory(CCheckedExtent& extent, CGrainTablesChecker& tables, bool& isOwn);
    void checkTrail(CCheckedExtent& extent, Header& header, int64 slotsEnd, CGrainRecordChecker& records);
    UVMDKCheckFinding makeFinding(UVMDKCheckFinding::Kind kind, const UExtentLine& line, int64 index,
                                  const String& message) const;

    IFileSystem* m_fileSystem;
    UDiskToCheck* m_disk;
    CCheckSink* m_sink;
};

} // namespace tessel
