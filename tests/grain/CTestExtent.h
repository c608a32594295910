#pragma once

#include "Bytes.h"
#include "CFaultFileSystem.h"
#include "CRecordingStream.h"
#include "lum/CMemoryFileSystem.h"
#include "tessel/CVMDKGrain.h"
#include "tessel/CVMDKGrainAllocator.h"
#include "tessel/CVMDKSparseExtentHeader.h"

namespace tessel::test {

/// A sparse extent file in memory with directory, allocator and grain over it, put together and flushed
/// as an extent file does it. The file is made, empty, by the constructor; open() comes next.
class CTestExtent {
public:
    struct Settings {
        bool compressed = false;
        bool encrypted = false;
        int64 grainCount = 1024;
        int64 grainSizeSectors = 8;
        int compressionLevel = 1;
        int cacheLimit = CVMDKGrainTableCache::defaultLimit;
        /// Through the buffered stream that the library puts over every file.
        bool buffered = false;
    };
    /// What the directory says of a grain, in sectors.
    struct Info {
        int64 posSectors = -1;
        int64 slotSizeSectors = -1;

        friend bool operator==(const Info&, const Info&) = default;
    };

    explicit CTestExtent(const Settings& settings);
    CTestExtent(const CTestExtent&) = delete;
    CTestExtent& operator=(const CTestExtent&) = delete;
    ~CTestExtent() { close(); }

    /// Opens the file anew, after close(). A cache that is not given is made.
    void open(IIOStream::Access access = IIOStream::Access_ReadWrite, CVMDKGrainTableCache* cache = nullptr);
    /// The same without allocator and grain.
    void openDirectory(IIOStream::Access access = IIOStream::Access_ReadWrite,
                       CVMDKGrainTableCache* cache = nullptr);
    /// Lets go of everything that open() made: grain, allocator, directory, cache, stream.
    void close();
    /// Data, trail, durable; tables, durable.
    void flush();
    /// Ends all faults. The stream tells once more of a write that failed; it does so here.
    void endFaults() const;

    CVMDKGrainTableCache& cache() const { return *m_cache; }
    CVMDKGrainDirectory& directory() const { return *m_directory; }
    CVMDKGrainAllocator& allocator() const { return *m_allocator; }
    CVMDKGrain& grain() const { return *m_grain; }
    IIOStream& stream() const { return *m_stream; }
    /// What reaches the file is recorded here.
    CRecordingStream& recorder() const { return *m_recorder; }
    CFaultFileSystem& faults() const { return *m_faults; }
    const CVMDKSparseExtentHeader& header() const { return *m_header; }
    const Settings& settings() const { return m_settings; }
    int64 grainBytes() const { return m_settings.grainSizeSectors * vmdkSectorSize; }
    int64 overheadBytes() const {
        return static_cast<int64>(m_header->getOverheadSectors()) * vmdkSectorSize;
    }
    /// The last bytes of the file when it was made: the footer of a compressed extent.
    const Bytes& trail() const { return m_trail; }
    const CURI& uri() const { return m_uri; }
    String uriText() const { return m_uri.toString(true); }

    /// What the tables say now; the open grain is not flushed before.
    Info info(int64 grainIndex) const;
    /// Opens the grain as the directory has it. Disk and extent index differ by `firstDiskGrain`.
    void openGrain(int64 grainIndex) const;
    void write(int64 grainIndex, int64 offset, const Bytes& bytes) const;
    Bytes read(int64 grainIndex) const;
    /// Puts another grain object in the place of the one that open() made, after closing that.
    void useGrain(IVMDKDataProvider* provider, sigil::ICipher* cipher = nullptr);

    /// The file's bytes, past what is open.
    Bytes file() const;
    Bytes file(int64 position, int64 count) const;
    int64 fileLength() const;
    void patchFile(int64 position, const Bytes& bytes) const;
    void setFileLength(int64 length) const;
    /// The entry of a directory of 32-bit numbers.
    uint32 fileUInt32(int64 position) const;
    void patchUInt32(int64 position, uint32 value) const;

    /// Key and IV of encrypted extents.
    static const TCryptBuffer<unsigned char>& key();
    static const Bytes& baseIV();

    static constexpr int64 firstDiskGrain = 1000;

private:
    P<IIOStream> openPlain() const;
    P<CVMDKGrain> makeGrain(IVMDKDataProvider* provider, sigil::ICipher* cipher) const;

    Settings m_settings;
    CURI m_uri;
    P<CMemoryFileSystem> m_memory;
    P<CFaultFileSystem> m_faults;
    P<CVMDKSparseExtentHeader> m_header;
    Bytes m_trail;
    IIOStream::Access m_access = IIOStream::Access_Read;
    P<CRecordingStream> m_recorder;
    P<IIOStream> m_stream;
    P<CVMDKGrainTableCache> m_cache;
    P<CVMDKGrainDirectory> m_directory;
    P<CVMDKGrainAllocator> m_allocator;
    P<CVMDKGrain> m_grain;
};

inline void PrintTo(const CTestExtent::Info& info, std::ostream* out) {
    *out << "{" << info.posSectors << ", " << info.slotSizeSectors << "}";
}

} // namespace tessel::test
