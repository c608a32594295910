#pragma once

#include "Bytes.h"
#include "CFaultFileSystem.h"
#include "CJournalFileSystem.h"
#include "CLogRecorder.h"
#include "ErrorMatchers.h"
#include "lum/CMemoryFileSystem.h"
#include "tessel/CVMDKSparseExtentFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tessel::test {

/// Bytes that nothing can compress.
Bytes randomBytes(int64 count, unsigned int seed);

/// A new extent.
struct UExtentShape {
    bool compressed = false;
    int64 grainCount = 20;
    int64 grainSizeSectors = 8;
    bool encrypted = false;
};

/// How an extent is opened.
struct UExtentOpening {
    IIOStream::Access access = IIOStream::Access_ReadWrite;
    int compressionLevel = 1;
    int64 startGrainIndex = 0;
    IVMDKDataProvider* fallback = nullptr;
    bool withUpdater = true;
    bool withCipher = false;
};

/// An extent file in memory, with a main file beside it that holds the descriptor. Every file is opened
/// through m_faults, below which is m_journal.
class ExtentTest : public ::testing::Test {
public:
    ExtentTest();
    ~ExtentTest() override;

    static const CURI extentURI;
    static const CURI mainURI;
    /// extentURI as errors show it.
    static const String extentName;

    /// The places of numbers in the header.
    enum HeaderField {
        Field_Magic = 0,
        Field_Version = 4,
        Field_Flags = 8,
        Field_Capacity = 12,
        Field_GrainSize = 20,
        Field_DescriptorOffset = 28,
        Field_DescriptorSize = 36,
        Field_EntryCount = 44,
        Field_RedundantDirectory = 48,
        Field_Directory = 56,
        Field_Overhead = 64,
        Field_EncryptionAlgorithm = 79,
        Field_KeyHashAlgorithm = 81,
        Field_KeyHashSize = 83,
        Field_KeyHash = 85,
    };

    /// A new main file, whose content ID was not changed yet, and an updater for it.
    void createMainFile();
    void createExtent(const UExtentShape& shape, const CURI& uri = extentURI);
    P<CVMDKSparseExtentFile> openExtent(const UExtentOpening& opening = {}, const CURI& uri = extentURI);

    static Bytes readAt(IVMDKExtentFile& extent, int64 position, int64 count);
    static void writeAt(IVMDKExtentFile& extent, int64 position, const Bytes& data);

    Bytes loadFile(const CURI& uri = extentURI) const;
    void storeFile(const Bytes& contents, const CURI& uri = extentURI);
    /// Writes a little-endian number over bytes of the extent file.
    template <class T>
    void patchFile(int64 offset, T value) {
        Bytes bytes(static_cast<int64>(sizeof(T)));
        for (std::size_t i = 0; i < sizeof(T); ++i)
            bytes[static_cast<int64>(i)] = static_cast<unsigned char>(static_cast<uint64>(value) >> (8 * i));
        patchFile(offset, bytes);
    }
    void patchFile(int64 offset, const Bytes& bytes);
    uint32 loadNumber(int64 offset) const;

    /// The content ID that the main file holds.
    unsigned int getStoredContentID() const;

    /// What was logged at warning level and above since the last call, as "level: message". What no
    /// test takes makes it fail.
    TArray<std::string> takeLog();

    P<CMemoryFileSystem> m_memory{new CMemoryFileSystem};
    P<CJournalFileSystem> m_journal{new CJournalFileSystem(m_memory.get())};
    P<CFaultFileSystem> m_faults{new CFaultFileSystem(m_journal.get())};
    P<CVMDKGrainTableCache> m_cache{new CVMDKGrainTableCache};
    P<CVMDKDescriptor> m_descriptor;
    P<CVMDKContentIDUpdater> m_updater;
    P<sigil::ICipher> m_cipher;
    TCryptBuffer<unsigned char> m_key;
    Bytes m_iv;
    Bytes m_keyHash;

    static constexpr unsigned int oldContentID = 0x12345678;

private:
    CLogRecorder m_log;

protected:
    void TearDown() override;
};

} // namespace tessel::test
