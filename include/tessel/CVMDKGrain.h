#pragma once

#include "lum/IIOStream.h"
#include "sigil/ICipher.h"
#include "tessel/CVMDKDataPreparer.h"
#include "tessel/IVMDKDataProvider.h"
#include "tessel/IVMDKGrainAllocator.h"

namespace tessel {

/// The cursor through which an extent file reads and writes one grain at a time.
///
/// Life: open() on a grain; read() and write() move the cursor; the contents are loaded when they are
/// first needed, from the slot, else from the fallback provider, else as zeros; changes stay in memory
/// until flushChangesToStream(), close() or the next open() writes them, prepared and encrypted, into
/// the grain's slot or a new one. Memory: about six grains.
///
/// Positions and counts are bytes within the grain unless they say otherwise.
class TESSEL_EXPORT CVMDKGrain : public CBase {
public:
    /// `fallbackDataProvider` and `cipher` may be null. Stream, allocator, provider and cipher are kept,
    /// key and IV copied.
    CVMDKGrain(IIOStream* stream, IIOStream::Access access, int64 grainSizeSectors,
               IVMDKGrainAllocator* allocator, bool compressed, int compressionLevel,
               IVMDKDataProvider* fallbackDataProvider, sigil::ICipher* cipher,
               const TCryptBuffer<unsigned char>& key, const TBuffer<unsigned char>& baseIV);
    /// Closes; a failure goes to onExceptionInDestructorIgnored.
    ~CVMDKGrain() override;
    CVMDKGrain(const CVMDKGrain&) = delete;
    CVMDKGrain& operator=(const CVMDKGrain&) = delete;

    /// A new preparer for grains of this size and kind.
    P<CVMDKDataPreparer> createDataPreparer() const;

    /// Closes the grain that was open and opens another, cursor at its start. `grainPosSectors` 0 means
    /// that it has no slot.
    /// Throws: what flushing throws, the old grain then being open still; CInvalidArgError for a slot
    /// smaller than it must be, no grain being open then.
    void open(int64 extentGrainIndex, int64 diskGrainIndex, int64 grainPosSectors, int64 slotSizeSectors);
    /// Flushes, and forgets the grain. Throws: what flushing throws, the grain then being open still.
    void close();

    /// True while a grain is open.
    bool isOpen() const noexcept { return m_diskGrainIndex >= 0; }
    /// The cursor, in bytes from the grain's start.
    int64 getPosition() const noexcept { return m_position; }
    /// Bytes from the cursor to the grain's end.
    int getBytesLeft() const noexcept { return static_cast<int>(m_grainSizeBytes - m_position); }
    /// The slot's first sector; 0 for a grain without a slot, -1 when none is open.
    int64 getGrainStartPositionSectors() const noexcept { return m_grainPosSectors; }

    /// Throws: CInvalidArgError ("uri", "position", "grainSize") outside the grain, its end included.
    void seek(int64 position);
    /// Throws: CInvalidArgError for a negative count; CIOError 4 beyond the grain's end; what loading
    /// throws, the grain then not being loaded.
    void read(void* buffer, int count);
    /// The same, but of a plain grain that is not loaded only the bytes that are asked for are read. Throws:
    /// as read.
    void readInPlace(void* buffer, int count);
    /// Throws: CInvalidArgError for a negative count; CIOError 3 beyond the grain's end; CError without
    /// write access; what loading throws.
    void write(const void* buffer, int count);

    /// Writes the changes. Zeros in a grain that has no slot are not stored, even where the fallback
    /// provider holds something else: its contents show through again. Use writePreparedGrainData to
    /// store them.
    /// Throws: what compressing, encrypting and the stream throw; the changes then stay to be written.
    void flushChangesToStream();

    /// May be null. A loaded grain that came from the old provider is loaded anew when next needed.
    void setFallbackDataProvider(IVMDKDataProvider* fallbackDataProvider);

    /// True when the grain has a slot or changes, here or, asked of the provider, further back.
    bool isGrainWritten();
    /// True when the grain has a slot or changes here.
    bool isGrainWrittenAndIndependentOfParent() const noexcept;

    /// The IV of a grain: the disk's, each byte i of it XORed with byte i mod 8 of the grain's index on
    /// the disk (64 bits, little-endian).
    static void makeGrainEncryptIV(TBuffer<unsigned char>& iv, const TBuffer<unsigned char>& baseIV,
                                   int64 grainIndex);

    // Whole grains in prepared form, neither inflated nor deflated. The cursor must be at the start; after
    // success it is at the end.

    /// Replaces what `out` held. Pending changes are flushed first.
    /// Throws: CIOError 11 when the cursor is not at the start; what reading throws; `out` is empty then.
    void readPreparedGrainData(TBuffer<unsigned char>& out);
    /// Throws: CInvalidArgError as CVMDKDataPreparer::verifyPreparedGrainData, which tells whether
    /// writePreparedGrainData would take the data.
    void verifyPreparedData(const TConstBufferSlice<unsigned char>& data) const;
    /// Replaces the grain, pending changes included. A compressed record is stored with this grain's
    /// position.
    /// Throws: CError without write access; CIOError 11 when the cursor is not at the start;
    /// CInvalidArgError for data that are no prepared grain of this kind: nothing has changed then. What
    /// writing throws.
    void writePreparedGrainData(const TBuffer<unsigned char>& data);
    /// The same; the buffer may be changed as soon as the call has returned.
    void writePreparedGrainDataKeepBuffer(const TConstBufferSlice<unsigned char>& data);
    /// Stores the provider's data for a grain that has no slot, zeros too, and returns how many prepared
    /// bytes that were; for one that has, the grain size; without a provider, 0. Pending changes are
    /// flushed first.
    int64 makeIndependentOfParent();

private:
    bool hasSlot() const noexcept { return m_grainPosSectors > 0; }
    bool isLoaded() const noexcept { return !m_data->isEmpty(); }
    int64 diskBytePosition() const noexcept { return m_diskGrainIndex * m_grainSizeBytes; }
    String uriText() const;
    void forgetData() noexcept;

    void readGrainData();
    void readCompressedGrain(TBuffer<unsigned char>& target);
    void readUncompressedGrain(TBuffer<unsigned char>& target);
    void verifyAtStart(const char* method) const;
    void fetchPreparedGrainData(TBuffer<unsigned char>& out);
    TConstBufferSlice<unsigned char> makeRecordOfThisGrain(const TConstBufferSlice<unsigned char>& data);
    void writePreparedGrainDataImpl(const TConstBufferSlice<unsigned char>& data, bool keepBuffer);
    void writePreparedGrainDataInternal(const TConstBufferSlice<unsigned char>& data, bool keepBuffer);
    TConstBufferSlice<unsigned char> encryptPreparedData(const TConstBufferSlice<unsigned char>& data);
    void writeIntoSlot(const TConstBufferSlice<unsigned char>& data, bool keepBuffer);
    void initZeroGrainData(int64 diskGrainIndex);

    P<IIOStream> m_stream;
    IIOStream::Access m_access;
    P<IVMDKGrainAllocator> m_allocator;
    int64 m_grainPosSectors = -1;
    int64 m_slotSizeSectors = -1;
    int64 m_extentGrainIndex = -1;
    int64 m_diskGrainIndex = -1;
    int64 m_grainSizeSectors;
    int64 m_grainSizeBytes;
    bool m_compressed;
    int m_compressionLevel;
    P<IVMDKDataProvider> m_fallbackDataProvider;
    /// The grain's plain bytes; empty: not loaded.
    P<TBuffer<unsigned char>> m_data;
    bool m_dirty = false;
    int64 m_position = 0;
    P<CVMDKDataPreparer> m_dataPreparer;
    int64 m_worstCaseSlotSizeSectors = 0;
    /// The stored form of a compressed grain, before encryption; empty: not known.
    P<TBuffer<unsigned char>> m_prepared;
    P<sigil::ICipher> m_cipher;
    TCryptBuffer<unsigned char> m_key;
    TBuffer<unsigned char> m_baseIV;
    TBuffer<unsigned char> m_grainIV;
    TBuffer<unsigned char> m_encrypted;
    TBuffer<unsigned char> m_record;
    P<TBuffer<unsigned char>> m_zeroGrain;
    P<TBuffer<unsigned char>> m_preparedZeroGrain;
};

} // namespace tessel
