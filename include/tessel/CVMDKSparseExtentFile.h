#pragma once

#include "lum/IIOStream.h"
#include "sigil/ICipher.h"
#include "tessel/CVMDKContentIDUpdater.h"
#include "tessel/CVMDKGrain.h"
#include "tessel/CVMDKGrainAllocator.h"
#include "tessel/CVMDKGrainDirectory.h"
#include "tessel/CVMDKSparseExtentHeader.h"
#include "tessel/IVMDKExtentFile.h"

namespace tessel {

/// An existing sparse extent file, plain, compressed or encrypted. Owns its stream.
///
/// Changes collect in the grain, the tables and the stream; flushChanges(), and the destructor, write
/// them so that nothing flushed before is lost at any moment: data and trail first, made durable, then
/// the tables that name them.
class TESSEL_EXPORT CVMDKSparseExtentFile : public CBase, public IVMDKExtentFile {
public:
    /// Reads header and directories. The stream stands at the file's start. `fallback`, `updater` (only
    /// needed for changes) and `cipher` may be null.
    /// Throws: CInvalidArgError or CError ("uri") when the encryption of the file and the key do not
    /// match; CIOError 6 for a version other than 1 to 3; CIOError 5 for a file of an unsupported kind
    /// or with numbers that cannot be; what the header, the directory and the stream throw.
    CVMDKSparseExtentFile(IIOStream* stream, IIOStream::Access access, int64 startGrainIndex,
                          int compressionSetting, CVMDKGrainTableCache* cache, IVMDKDataProvider* fallback,
                          CVMDKContentIDUpdater* updater, sigil::ICipher* cipher,
                          const TCryptBuffer<unsigned char>& key, const TBuffer<unsigned char>& iv);
    /// Flushes; a failure goes to onExceptionInDestructorIgnored.
    ~CVMDKSparseExtentFile() override;
    CVMDKSparseExtentFile(const CVMDKSparseExtentFile&) = delete;
    CVMDKSparseExtentFile& operator=(const CVMDKSparseExtentFile&) = delete;

    /// The stream of the extent's file, which others may use between two calls.
    P<IIOStream> getStream() const { return m_stream; }
    /// The header as it was read.
    const CVMDKSparseExtentHeader& getHeader() const noexcept { return *m_header; }
    /// Size of the extent in sectors, as its header has it.
    int64 getCapacitySectors() const noexcept { return m_capacitySectors; }
    /// The directory; lives as long as this object.
    CVMDKGrainDirectory& getGrainDirectory() const noexcept { return *m_grainDirectory; }

    /// Throws: CIOError 5 when the extent's grains are not of this size and kind, or its capacity is below
    /// `sizeSectors`: it is no extent of the disk that asks.
    void verifyFitsDisk(int64 grainSizeSectors, bool compressed, int64 sizeSectors);

    /// As seek(), for an extent that takes another's place: the extent's end needs no grain there.
    /// Requires: no grain was used yet.
    void startAt(int64 position);

    /// How many grains from `grainIndex` on, up to the end of its grain table, or of the
    /// tables behind it that are not there either, agree in having a slot or
    /// not; `hasSlot` says which. The open grain is flushed before.
    int64 findSlotRun(int64 grainIndex, bool& hasSlot);

    /// How many grains from `grainIndex` on, at most `mostGrains`, have slots that make up one run: in a
    /// plain extent those that follow each other, `posSectors` being the first one's; in a compressed one
    /// all. `slotSectors` is the size of them together. 0 when the first has none. The open grain is flushed
    /// before. Throws: as CVMDKGrainDirectory::getGrainInfo.
    int64 findStoredGrains(int64 grainIndex, int64 mostGrains, int64& posSectors, int64& slotSectors);

    void setFallbackDataProvider(IVMDKDataProvider* fallbackDataProvider) override;
    int64 getStartGrainIndex() const override { return m_startGrainIndex; }
    int64 getGrainSizeSectors() const override { return m_grainSizeSectors; }
    bool getCompressed() const override { return m_compressed; }
    CURI getURI() override;
    void seek(int64 position) override;
    int64 getPosition() const override { return m_position; }
    void read(void* buffer, int size) override;
    void write(const void* buffer, int size) override;
    void flushChanges() override;
    P<CVMDKDataPreparer> createDataPreparer() override;
    void writePreparedGrainData(const TBuffer<unsigned char>& data) override;
    void readPreparedGrainData(TBuffer<unsigned char>& data) override;
    int64 makeGrainIndependentOfParent(int64 grainIndex) override;
    bool isGrainWritten() override;
    bool isGrainWrittenAndIndependentOfParent() override;
    P<CVMDKSpaceInfo> gatherSpaceInfo() override;

protected:
    /// Opens the grain at the position where it is not open yet, and returns how many of `size` bytes it
    /// takes, at least 1.
    int64 beginIOOp(int64 size);
    /// Called before anything changes. Throws: CError without an updater or write access.
    void onAboutToChange();
    /// Throws: CError.
    void verifyHaveWriteAccess();

private:
    CProps uriProps() const;
    void verifyEncryption() const;
    void verifyKey() const;
    void verifyFormat() const;
    void verifyNumber(const char* name, uint64 value, uint64 smallest, uint64 largest) const;
    TBuffer<unsigned char> buildTrail();
    [[noreturn]] void throwBadPosition(int64 position) const;
    void verifySize(const char* method, const char* verb, int size) const;
    bool isAtWholePlainGrains(int size) const noexcept;
    template <class Move>
    int moveWholeGrains(int size, bool& singly, Move move);
    int findSlotSequence(int64 firstGrainIndex, int most, int64& posSectors);
    int readWholeGrains(void* buffer, int size);
    int writeWholeGrains(const void* buffer, int size);
    void verifyPreparedTransfer(const char* verb);
    void beginPreparedTransfer(const char* method);

    P<IIOStream> m_stream;
    IIOStream::Access m_access;
    P<CVMDKGrainTableCache> m_grainTableCache;
    int64 m_startGrainIndex;
    P<IVMDKDataProvider> m_fallbackDataProvider;
    P<CVMDKContentIDUpdater> m_contentIDUpdater;
    P<CVMDKSparseExtentHeader> m_header;
    int64 m_capacitySectors = 0;
    int64 m_capacityBytes = 0;
    int64 m_grainSizeSectors = 0;
    int64 m_grainSizeBytes = 0;
    bool m_compressed = false;
    int m_compressionSetting;
    P<CVMDKGrainDirectory> m_grainDirectory;
    P<CVMDKGrainAllocator> m_grainAllocator;
    P<CVMDKGrain> m_grain;
    /// The grain that m_grain is open on; -1: none.
    int64 m_currentGrainIndex = -1;
    int64 m_position = 0;
    P<sigil::ICipher> m_cipher;
    TCryptBuffer<unsigned char> m_encryptionKey;
    TBuffer<unsigned char> m_encryptionIV;
};

} // namespace tessel
