#pragma once

#include "lum/CURI.h"
#include "tessel/CVMDKDataPreparer.h"
#include "tessel/CVMDKSpaceInfo.h"
#include "tessel/IVMDKDataProvider.h"
#include "tessel/types.h"

namespace tessel {

/// One extent of a disk: its virtual contents, addressed in bytes from the extent's start. One thread at
/// a time.
class TESSEL_EXPORT IVMDKExtentFile : public virtual IBase {
public:
    /// Where grains come from that this extent does not hold; null: they are zeros.
    virtual void setFallbackDataProvider(IVMDKDataProvider* fallbackDataProvider) = 0;
    /// Index, within the whole disk, of this extent's first grain.
    virtual int64 getStartGrainIndex() const = 0;
    /// Sectors of a grain.
    virtual int64 getGrainSizeSectors() const = 0;
    /// Whether grains are stored compressed.
    virtual bool getCompressed() const = 0;
    /// The extent's file, also where that does not exist yet.
    virtual CURI getURI() = 0;
    /// Throws: CInvalidArgError ("uri") outside 0 to the extent's size, both included.
    virtual void seek(int64 position) = 0;
    /// Where the next transfer begins, in bytes from the extent's start.
    virtual int64 getPosition() const = 0;
    /// Reads exactly `size` bytes. Throws: CIOError 4 ("uri", "position", "bytesToRead") past the end.
    virtual void read(void* buffer, int size) = 0;
    /// Throws: CIOError 3 ("uri", "position", "bytesToWrite") past the end; CError without write access.
    virtual void write(const void* buffer, int size) = 0;
    /// Makes all changes durable.
    virtual void flushChanges() = 0;
    /// A new preparer for grains of this extent's size and kind.
    virtual P<CVMDKDataPreparer> createDataPreparer() = 0;
    /// Moves one whole grain in prepared form at the position, which must be at a grain's start.
    /// Throws: CIOError 3 past the end, CIOError 11 off a grain boundary ("uri", "position", "grainSize").
    virtual void writePreparedGrainData(const TBuffer<unsigned char>& data) = 0;
    /// The same in the other direction; replaces what `data` held.
    virtual void readPreparedGrainData(TBuffer<unsigned char>& data) = 0;
    /// Copies a grain that this extent does not hold from the fallback provider; the position is then at
    /// the next grain. `grainIndex` counts within the extent. Returns the prepared bytes stored, the
    /// grain size when there was nothing to copy, 0 without a provider. Does not change the content ID.
    virtual int64 makeGrainIndependentOfParent(int64 grainIndex) = 0;
    /// Whether the grain at the position was written, here or, asked of the provider, further back.
    virtual bool isGrainWritten() = 0;
    /// Whether it was written here.
    virtual bool isGrainWrittenAndIndependentOfParent() = 0;
    /// Flushes, and counts how the file's bytes are used; every grain table passes through the cache.
    virtual P<CVMDKSpaceInfo> gatherSpaceInfo() = 0;
};

} // namespace tessel
