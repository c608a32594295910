#pragma once

#include "disk/CCheckSink.h"
#include "disk/ExtentLines.h"
#include "lum/IIOStream.h"
#include "tessel/CVMDKSparseExtentHeader.h"

namespace tessel {

/// An extent file whose header can be used, with the header's numbers as they have been proven against the
/// file: nothing that is computed from them overflows.
class CCheckedExtent {
public:
    /// `sink` is borrowed. Requires: findHeaderProblem says nothing of `header`.
    CCheckedExtent(const UExtentLine& line, int64 index, IIOStream* stream, int64 fileBytes,
                   const CVMDKSparseExtentHeader& header, CCheckSink& sink);

    /// What makes a header useless for a file of this length, for people; empty when nothing does.
    static String findHeaderProblem(const CVMDKSparseExtentHeader& header, int64 fileBytes);

    const UExtentLine& getLine() const noexcept { return m_line; }
    CCheckSink& getSink() const noexcept { return *m_sink; }

    int64 getFileBytes() const noexcept { return m_fileBytes; }
    /// The sectors of the file, a last one that is not whole included.
    int64 getFileSectors() const noexcept;
    bool isCompressed() const noexcept { return m_isCompressed; }
    int64 getCapacitySectors() const noexcept { return m_capacitySectors; }
    int64 getGrainSizeSectors() const noexcept { return m_grainSizeSectors; }
    int64 getGrainSizeBytes() const noexcept { return m_grainSizeSectors * vmdkSectorSize; }
    int64 getGrainCount() const noexcept { return m_grainCount; }
    int64 getTableCount() const noexcept { return m_tableCount; }
    int getEntriesPerTable() const noexcept { return m_entriesPerTable; }
    int64 getDirectorySectors() const noexcept;
    int64 getDirectoryPosSectors() const noexcept { return m_directoryPosSectors; }
    /// 0: there is none.
    int64 getRedundantDirectoryPosSectors() const noexcept { return m_redundantDirectoryPosSectors; }
    /// May lie behind the end of the file.
    int64 getOverheadSectors() const noexcept { return m_overheadSectors; }
    /// Index, in the disk, of the first grain.
    int64 getStartGrainIndex() const noexcept;

    /// The byte of the disk where a grain begins; -1 when no disk has it.
    int64 calcDiskPosition(int64 grainIndex) const noexcept;

    /// True when so many bytes from a sector on lie in the file.
    bool isInFile(int64 posSectors, int64 sizeBytes) const noexcept;

    /// Reads exactly `size` bytes, or returns false and keeps why for makeUnreadable.
    bool tryRead(int64 position, void* buffer, int64 size);

    /// A finding about this file.
    UVMDKCheckFinding makeFinding(UVMDKCheckFinding::Kind kind, const String& message) const;
    UVMDKCheckFinding makeTableFinding(UVMDKCheckFinding::Kind kind, int64 tableIndex,
                                       const String& message) const;
    UVMDKCheckFinding makeGrainFinding(UVMDKCheckFinding::Kind kind, int64 grainIndex,
                                       const String& message) const;
    /// Makes a finding tell that the last tryRead failed on something, and why.
    UVMDKCheckFinding makeUnreadable(UVMDKCheckFinding finding, const String& what) const;
    void add(const UVMDKCheckFinding& finding) const { m_sink->add(finding); }

private:
    UExtentLine m_line;
    int64 m_index;
    P<IIOStream> m_stream;
    int64 m_fileBytes;
    CCheckSink* m_sink;
    bool m_isCompressed;
    int64 m_capacitySectors;
    int64 m_grainSizeSectors;
    int m_entriesPerTable;
    int64 m_directoryPosSectors;
    int64 m_redundantDirectoryPosSectors;
    int64 m_overheadSectors;
    int64 m_grainCount;
    int64 m_tableCount;
    String m_readError;
};

} // namespace tessel
