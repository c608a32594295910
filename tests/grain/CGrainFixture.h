#pragma once

#include "CFakeDataProvider.h"
#include "CTestExtent.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>

namespace tessel::test {

/// A grain over a real extent, with grains of 4096 bytes.
class CGrainFixture : public ::testing::Test {
protected:
    using Info = CTestExtent::Info;

    static constexpr int grainBytes = 4096;

    void make(bool compressed, bool encrypted = false, int level = 1) {
        m_extent = std::make_unique<CTestExtent>(CTestExtent::Settings{
            .compressed = compressed, .encrypted = encrypted, .compressionLevel = level});
        m_extent->open();
    }
    void makeWithProvider(bool compressed) {
        make(compressed);
        m_extent->useGrain(m_provider.get());
    }
    CVMDKGrain& grain() const { return m_extent->grain(); }

    static int64 diskByte(int64 grainIndex) {
        return (CTestExtent::firstDiskGrain + grainIndex) * int64{grainBytes};
    }
    Bytes providerGrain(int64 grainIndex) const {
        return m_provider->contents(diskByte(grainIndex), grainBytes);
    }

    /// Bytes that no compressor makes smaller.
    static Bytes noise(int64 count, unsigned int seed = 1) {
        std::mt19937 random(seed);
        Bytes bytes(count);
        for (int64 i = 0; i < count; ++i)
            bytes[i] = static_cast<unsigned char>(random());
        return bytes;
    }
    /// A grain of which a piece was written over.
    static Bytes overwritten(Bytes grain, int64 offset, const Bytes& piece) {
        std::copy_n(piece.getData(), piece.getUsed(), grain.getData() + offset);
        return grain;
    }

    Bytes readHere(int count = grainBytes) const {
        Bytes bytes(count);
        grain().read(bytes.getData(), count);
        return bytes;
    }
    void writeHere(const Bytes& bytes) const {
        grain().write(bytes.getData(), static_cast<int>(bytes.getUsed()));
    }
    /// Writes a whole grain and flushes it.
    void store(int64 grainIndex, const Bytes& bytes) const {
        m_extent->write(grainIndex, 0, bytes);
        grain().flushChangesToStream();
    }
    /// What reached the file since last asked, reads left out.
    TArray<CRecordingStream::Operation> takeWrites() const {
        TArray<CRecordingStream::Operation> writes;
        for (const auto& operation : m_extent->recorder().takeOperations())
            if (operation.kind == CRecordingStream::Write)
                writes.push_back(operation);
        return writes;
    }
    /// The record of a grain in compressed extents, made by a preparer of the test's own.
    static Bytes record(const Bytes& plain, int64 diskGrainIndex, int level = 1) {
        CVMDKDataPreparer preparer(grainBytes / 512, true, level);
        const P<TBuffer<unsigned char>> source(new TBuffer<unsigned char>(plain));
        const P<TBuffer<unsigned char>> aux(new TBuffer<unsigned char>);
        return *preparer.prepareGrainData(source.get(), diskGrainIndex, aux.get());
    }
    static int64 worstCaseSectors() { return CVMDKDataPreparer(8, true, 1).getWorstCaseGrainSizeSectors(); }

    std::unique_ptr<CTestExtent> m_extent;
    P<CFakeDataProvider> m_provider{new CFakeDataProvider};
};

/// The same for both kinds of extent: the parameter says whether grains are compressed.
class CGrainOfBothKindsFixture : public CGrainFixture, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override { make(GetParam()); }
};

} // namespace tessel::test
