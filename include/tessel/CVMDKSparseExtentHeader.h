#pragma once

#include "lum/CDataInStream.h"
#include "lum/CDataOutStream.h"
#include "tessel/types.h"

namespace tessel {

/// The 512 bytes at the start of every sparse extent file, as in VMware's "Virtual Disk Format 5.0"
/// (SparseExtentHeader), in its standard layout and in the library's own, which adds an encryption
/// extension under another magic number. Offsets and sizes are sectors.
class TESSEL_EXPORT CVMDKSparseExtentHeader : public CBase {
public:
    /// Bytes "KDMV".
    static constexpr uint32 magicNumber = 0x564D444B;
    /// Announces the layout with the encryption extension.
    static constexpr uint32 magicNumberEncrypted = 0x05644B45;
    /// The largest key hash that the extension can hold, in bytes.
    static constexpr int maxEncryptionKeyHashSize = 427;

    /// Bits of the flags; others are reserved and kept.
    enum Flag : unsigned int {
        Flag_LineEndTest = 0x1,        ///< the line-end test bytes must be checked
        Flag_RedundantDirectory = 0x2, ///< the redundant grain directory offset is valid
        Flag_ZeroGrainEntry = 0x4,     ///< a grain table entry of 1 means a grain of zeros
        Flag_Compressed = 0x10000,     ///< grains are compressed
        Flag_MetaMarkers = 0x20000,    ///< metadata markers are present
    };

    /// All numbers 0, flags false, no key hash.
    CVMDKSparseExtentHeader();

    /// Reads one record of 512 bytes at the stream's position. The version is not checked.
    /// Throws: CIOError 5 for an unknown magic number ("num"), line ends that were altered, or a key
    /// hash too long for the record ("encryptionKeyHashSize"); the stream's error on a short read. The
    /// fields are then unspecified.
    void load(CDataInStream& in);

    /// Writes the record, 512 bytes, at the stream's position. Reserved bytes are written as they were
    /// loaded.
    void store(CDataOutStream& out);

    /// 1 plain, 3 compressed; 2 in files of other writers.
    unsigned int getVersion() const noexcept { return m_version; }
    /// Sets the version.
    void setVersion(unsigned int version) noexcept { m_version = version; }
    /// The bits of Flag, and reserved ones as they were loaded.
    unsigned int getFlags() const noexcept { return m_flags; }
    /// Sets all flags.
    void setFlags(unsigned int flags) noexcept { m_flags = flags; }
    /// Size of the extent's virtual contents.
    unsigned long long getCapacitySectors() const noexcept { return m_capacity; }
    /// Sets the size of the extent's virtual contents.
    void setCapacitySectors(unsigned long long sectors) noexcept { m_capacity = sectors; }
    /// Sectors of a grain.
    unsigned long long getGrainSizeSectors() const noexcept { return m_grainSize; }
    /// Sets the sectors of a grain.
    void setGrainSizeSectors(unsigned long long sectors) noexcept { m_grainSize = sectors; }
    /// Where the embedded descriptor is; 0 when there is none.
    unsigned long long getDescriptorOffsetSectors() const noexcept { return m_descriptorOffset; }
    /// Sets where the embedded descriptor is.
    void setDescriptorOffsetSectors(unsigned long long sectors) noexcept { m_descriptorOffset = sectors; }
    /// Sectors of the area that the embedded descriptor has.
    unsigned long long getDescriptorSizeSectors() const noexcept { return m_descriptorSize; }
    /// Sets the sectors of the descriptor's area.
    void setDescriptorSizeSectors(unsigned long long sectors) noexcept { m_descriptorSize = sectors; }
    /// Entries of one grain table.
    unsigned int getGrainTableEntryCount() const noexcept { return m_grainTableEntryCount; }
    /// Sets the entries of one grain table.
    void setGrainTableEntryCount(unsigned int count) noexcept { m_grainTableEntryCount = count; }
    /// First sector of the redundant grain directory; valid with Flag_RedundantDirectory only.
    unsigned long long getRedundantGrainDirectoryOffsetSectors() const noexcept {
        return m_redundantDirectoryOffset;
    }
    /// Sets the first sector of the redundant grain directory.
    void setRedundantGrainDirectoryOffsetSectors(unsigned long long sectors) noexcept {
        m_redundantDirectoryOffset = sectors;
    }
    /// First sector of the grain directory.
    unsigned long long getGrainDirectoryOffsetSectors() const noexcept { return m_directoryOffset; }
    /// Sets the first sector of the grain directory.
    void setGrainDirectoryOffsetSectors(unsigned long long sectors) noexcept { m_directoryOffset = sectors; }
    /// Sectors before the first grain.
    unsigned long long getOverheadSectors() const noexcept { return m_overhead; }
    /// Sets the sectors before the first grain.
    void setOverheadSectors(unsigned long long sectors) noexcept { m_overhead = sectors; }
    /// Whether a writer marked the file as in use; the library does not.
    bool getUncleanShutdown() const noexcept { return m_uncleanShutdown; }
    /// Sets or clears that mark.
    void setUncleanShutdown(bool unclean) noexcept { m_uncleanShutdown = unclean; }
    /// 0 none, 1 deflate.
    unsigned short getCompressAlgorithm() const noexcept { return m_compressAlgorithm; }
    /// Sets the compression.
    void setCompressAlgorithm(unsigned short algorithm) noexcept { m_compressAlgorithm = algorithm; }

    /// Selects the layout with the encryption extension; the rest of these fields exist only in it.
    bool getEncryptionExtensionEnabled() const noexcept { return m_encryptionExtensionEnabled; }
    /// Selects the layout that is stored.
    void setEncryptionExtensionEnabled(bool enabled) noexcept { m_encryptionExtensionEnabled = enabled; }
    /// 0 none, 1 AES-256-CBC.
    unsigned short getEncryptionAlgorithm() const noexcept { return m_encryptionAlgorithm; }
    /// Sets the encryption.
    void setEncryptionAlgorthm(unsigned short algorithm) noexcept { m_encryptionAlgorithm = algorithm; }
    /// 1 SHA-256.
    unsigned short getEncryptionKeyHashAlgorithm() const noexcept { return m_encryptionKeyHashAlgorithm; }
    /// Sets the algorithm of the key hash.
    void setEncryptionKeyHashAlgorthm(unsigned short algorithm) noexcept {
        m_encryptionKeyHashAlgorithm = algorithm;
    }
    /// The digest of the data key; empty without encryption.
    const TBuffer<unsigned char>& getEncryptionKeyHash() const noexcept { return m_encryptionKeyHash; }
    /// Copies the hash. Throws: CInvalidArgError when it is longer than maxEncryptionKeyHashSize.
    void setEncryptionKeyHash(const TBuffer<unsigned char>& hash);

private:
    uint32 m_version = 0;
    uint32 m_flags = 0;
    uint64 m_capacity = 0;
    uint64 m_grainSize = 0;
    uint64 m_descriptorOffset = 0;
    uint64 m_descriptorSize = 0;
    uint32 m_grainTableEntryCount = 0;
    uint64 m_redundantDirectoryOffset = 0;
    uint64 m_directoryOffset = 0;
    uint64 m_overhead = 0;
    bool m_uncleanShutdown = false;
    uint16 m_compressAlgorithm = 0;
    /// The reserved tail of the record, kept from load to store.
    TBuffer<unsigned char> m_pad;
    bool m_encryptionExtensionEnabled = false;
    uint16 m_encryptionAlgorithm = 0;
    uint16 m_encryptionKeyHashAlgorithm = 0;
    TBuffer<unsigned char> m_encryptionKeyHash;
};

} // namespace tessel
