#pragma once

#include "lum/CBase.h"
#include "lum/CURI.h"
#include "lum/TConstBufferSlice.h"
#include "tessel/CVMDKCompressor.h"
#include "tessel/types.h"

#include <functional>

namespace tessel {

/// Turns a grain's plain bytes into prepared data and back. In compressed extents that is the grain
/// record of VMware's "Virtual Disk Format 5.0" (stream-optimized): the grain's first sector, the
/// length of the deflate stream, the stream, zeros up to a whole sector. In others it is the plain
/// bytes themselves. One thread at a time.
class TESSEL_EXPORT CVMDKDataPreparer : public CBase {
public:
    /// Bytes of a record before the deflate stream.
    static constexpr int recordHeadSize = 12;

    /// `compressionLevel` as CVMDKCompressor; it only matters with `compress`.
    CVMDKDataPreparer(int64 grainSizeSectors, bool compress, int compressionLevel);

    /// False when prepared data are the plain bytes.
    bool doesAnything() const noexcept { return static_cast<bool>(m_compressor); }
    /// The largest size that prepared data can have, in sectors.
    int64 getWorstCaseGrainSizeSectors() const noexcept { return m_worstCaseSizeSectors; }
    /// As CVMDKCompressor; 0 without one.
    int64 getCompressFallbackCount() const noexcept;

    /// Prepares at most a grain of plain bytes; a shorter source's missing end comes back as zeros.
    /// Returns `pAuxBuffer`, filled with whole sectors, or `pSourceBuffer` itself when there is nothing
    /// to do. The two buffers are different ones, both made with `new`.
    /// Throws: CInvalidArgError for a null buffer or a source larger than a grain; what compressing
    /// throws.
    P<TBuffer<unsigned char>> prepareGrainData(TBuffer<unsigned char>* pSourceBuffer, int64 grainIndex,
                                               TBuffer<unsigned char>* pAuxBuffer);
    /// Puts another grain's position into a record. Does nothing to plain bytes.
    /// Throws: CInvalidArgError for data shorter than a record's head.
    void patchGrainIndexInPreparedGrainData(TBuffer<unsigned char>& preparedData, int64 grainIndex);
    /// Undoes prepareGrainData: returns `pAuxBuffer`, filled with a whole grain, or `pPreparedBuffer`
    /// itself when there is nothing to do. The record's position and length fields are not consulted.
    /// Throws: CInvalidArgError for a null buffer; CIOError 5 for data that do not inflate to the
    /// stream's end within a grain.
    P<TBuffer<unsigned char>> unprepareGrainData(TBuffer<unsigned char>* pPreparedBuffer,
                                                 TBuffer<unsigned char>* pAuxBuffer);

    /// Tells whether data can be a grain of this kind. `method` and what `getURI` returns are for the
    /// error.
    /// Throws: CInvalidArgError ("uri"; "preparedSize" where there are any) for more or less than a grain
    /// where prepared data are plain; in records for less than the head, a length field that the data do not
    /// hold, or more than the worst case.
    void verifyPreparedGrainData(const TConstBufferSlice<unsigned char>& data, const char* method,
                                 const std::function<CURI()>& getURI) const;

private:
    int64 m_grainSizeSectors;
    int64 m_grainSizeBytes;
    P<CVMDKCompressor> m_compressor;
    int m_compressedSizeUpperBound = -1;
    int64 m_worstCaseSizeSectors;
};

} // namespace tessel
