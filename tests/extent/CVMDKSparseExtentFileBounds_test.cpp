// Slots outside the part of a file that holds grains, and files that were cut off.

#include "ExtentFixture.h"

namespace tessel::test {
namespace {

constexpr int64 grainSize = 4096;
constexpr int64 grainCount = 20;
constexpr int64 trailSize = 3 * 512;
constexpr const char* foreignEnd = "warning: VMDK trail data is not what we expected. Assuming that it is "
                                   "not trail data - we won't overwrite it.";

/// Both kinds of extents. The first grains of a table are stored; the rest never was.
class CVMDKSparseExtentFileBoundsTest : public ExtentTest, public ::testing::WithParamInterface<bool> {
protected:
    struct Slot {
        int64 posSectors = -1;
        int64 sizeSectors = -1;
    };

    static constexpr int storedGrains = 9;
    static constexpr int falseGrains[] = {2, 4, 6, 8};
    static constexpr int firstFalse = 2;
    static constexpr int falseAtEnd = 6;

    static Bytes contents(int64 grain) { return randomBytes(grainSize, static_cast<unsigned int>(grain)); }

    void store(int64 count = grainCount) {
        createExtent({.compressed = GetParam(), .grainCount = count});
        const auto extent = openExtent();
        for (int grain = 0; grain < storedGrains; ++grain)
            writeAt(*extent, grain * grainSize, contents(grain));
    }

    static Slot entryOf(CVMDKSparseExtentFile& extent, int64 grain) {
        Slot slot;
        extent.getGrainDirectory().findGrainEntry(grain, slot.posSectors, slot.sizeSectors);
        return slot;
    }
    Slot storedSlot(int64 grain) { return entryOf(*openExtent({.access = IIOStream::Access_Read}), grain); }

    int64 dataEnd() const { return loadFile().getUsed() - (GetParam() ? trailSize : 0); }

    void pointTo(int64 grain, int64 sector) {
        const int64 table = loadNumber(int64{loadNumber(Field_Directory)} * 512);
        patchFile<uint32>(table * 512 + grain * 4, static_cast<uint32>(sector));
    }

    /// Lets some grains name places that no grain of this file can have.
    void pointOutside() {
        const int64 size = storedSlot(4).sizeSectors;
        const int64 end = dataEnd() / 512;
        pointTo(firstFalse, int64{loadNumber(Field_Overhead)} - 1);
        pointTo(4, end - size + 1);
        pointTo(falseAtEnd, end);
        pointTo(8, 0xFFFFFFFF);
    }

    void expectOutside(const std::function<void()>& action, int64 grain, const Slot& slot, int64 end) {
        const String sector = toDecimal(slot.posSectors);
        const String size = toDecimal(slot.sizeSectors);
        EXPECT_TRUE(
            throwsError(action, typeid(CIOError), 5,
                        "VMDK grain " + toDecimal(grain) +
                            " lies outside the part of the file that holds grains (sector: " + sector +
                            ", slot size: " + size + " sectors; allowed: sector " +
                            toDecimal(loadNumber(Field_Overhead)) + " to byte " + toDecimal(end) + ").",
                        {{"uri", extentName},
                         {"grainIndex", toDecimal(grain)},
                         {"grainPosition", sector},
                         {"slotSize", size}}));
    }

    static Bytes prepare(IVMDKExtentFile& extent, int64 grain) {
        const P<Bytes> data(new Bytes(contents(grain + 50)));
        const P<Bytes> aux(new Bytes);
        return *extent.createDataPreparer()->prepareGrainData(data.get(), grain, aux.get());
    }

    /// Nothing that one can do with the grain reaches its slot. `end`: of the data, when it was opened.
    void expectRefused(CVMDKSparseExtentFile& extent, int64 grain, int64 end) {
        SCOPED_TRACE(::testing::Message() << "grain " << grain);
        const Slot slot = entryOf(extent, grain);
        const int64 start = grain * grainSize;
        const auto refused = [&](const std::function<void()>& action) {
            expectOutside(action, grain, slot, end);
        };
        Bytes data = patternBytes(2 * grainSize);
        extent.seek(0);
        refused([&] { extent.seek(start); });
        refused([&] { extent.seek(start + 17); });
        EXPECT_EQ(extent.getPosition(), 0);
        Slot found;
        refused([&] { extent.getGrainDirectory().getGrainInfo(grain, found.posSectors, found.sizeSectors); });
        refused([&] { extent.makeGrainIndependentOfParent(grain); });

        // A read that comes from the grain before stops at this one.
        for (const int size : {10, int{grainSize}, 2 * int{grainSize}}) {
            extent.seek(start - 5);
            refused([&] { extent.read(data.getData(), size); });
            EXPECT_EQ(extent.getPosition(), start);
            refused([&] { extent.read(data.getData(), size); });
            refused([&] { extent.write(data.getData(), size); });
            refused([&] { extent.readPreparedGrainData(data); });
            const Bytes prepared = prepare(extent, grain);
            refused([&] { extent.writePreparedGrainData(prepared); });
            refused([&] { extent.isGrainWritten(); });
            EXPECT_EQ(extent.getPosition(), start);
            data = patternBytes(2 * grainSize);
        }
    }

    void expectAllRefused(CVMDKSparseExtentFile& extent, int64 end) {
        for (const int grain : falseGrains)
            expectRefused(extent, grain, end);
    }

    void expectStored(CVMDKSparseExtentFile& extent, int64 first, int64 end) {
        for (int64 grain = first; grain < end; ++grain)
            EXPECT_EQ(readAt(extent, grain * grainSize, grainSize), contents(grain)) << "grain " << grain;
    }
};

std::string kindOf(const ::testing::TestParamInfo<bool>& info) {
    return info.param ? "Compressed" : "Plain";
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKSparseExtentFileBoundsTest, ::testing::Bool(), kindOf);

// --- False entries ---

TEST_P(CVMDKSparseExtentFileBoundsTest, GrainsOutsideAreRefusedAndTheOthersOfTheirTableGoOn) {
    store();
    pointOutside();
    const int64 end = dataEnd();
    const auto extent = openExtent();
    expectAllRefused(*extent, end);
    EXPECT_EQ(readAt(*extent, storedGrains * grainSize, grainSize), Bytes(grainSize));
    writeAt(*extent, 3 * grainSize, contents(103));
    writeAt(*extent, 15 * grainSize, contents(15));
    extent->flushChanges();
    EXPECT_EQ(readAt(*extent, 3 * grainSize, grainSize), contents(103));
    expectStored(*extent, 0, 2);
    for (const int grain : {5, 7, 15})
        expectStored(*extent, grain, grain + 1);
}

TEST_P(CVMDKSparseExtentFileBoundsTest, RunOfGrainsIsMovedUpToTheOneOutside) {
    store();
    pointOutside();
    const int64 end = dataEnd();
    const auto extent = openExtent();
    const Slot slot = entryOf(*extent, firstFalse);
    Bytes data(grainCount * grainSize);
    extent->seek(0);
    expectOutside([&] { extent->read(data.getData(), static_cast<int>(data.getUsed())); }, firstFalse, slot,
                  end);
    EXPECT_EQ(extent->getPosition(), firstFalse * grainSize);
    for (int64 grain = 0; grain < firstFalse; ++grain)
        EXPECT_EQ(slice(data, grain * grainSize, grainSize), contents(grain));

    const Bytes fresh = randomBytes(grainCount * grainSize, 77);
    extent->seek(0);
    expectOutside([&] { extent->write(fresh.getData(), static_cast<int>(fresh.getUsed())); }, firstFalse,
                  slot, end);
    EXPECT_EQ(extent->getPosition(), firstFalse * grainSize);
    extent->flushChanges();
    EXPECT_EQ(readAt(*extent, 0, firstFalse * grainSize), slice(fresh, 0, firstFalse * grainSize));
}

TEST_P(CVMDKSparseExtentFileBoundsTest, NewSlotsWhereAFalseEntryPointsDoNotMakeItGood) {
    m_cache = new CVMDKGrainTableCache(1);
    store(3 * 512);
    pointOutside();
    const int64 end = dataEnd();
    const auto extent = openExtent();
    // Their slots come to lie where the false entries behind the end point.
    for (int64 grain = 10; grain < 16; ++grain)
        writeAt(*extent, grain * grainSize, contents(grain));
    extent->flushChanges();
    EXPECT_EQ(entryOf(*extent, 10).posSectors, entryOf(*extent, falseAtEnd).posSectors)
        << "as the case demands";
    expectAllRefused(*extent, end);

    // Neither when their table has left the cache meanwhile.
    writeAt(*extent, 600 * grainSize, contents(600));
    writeAt(*extent, 1100 * grainSize, contents(1100));
    EXPECT_EQ(readAt(*extent, 600 * grainSize, grainSize), contents(600));
    expectAllRefused(*extent, end);
    expectStored(*extent, 0, firstFalse);
    expectStored(*extent, 10, 16);
}

TEST_P(CVMDKSparseExtentFileBoundsTest, EntryThatIsSetAnewIsGood) {
    store();
    pointOutside();
    const int64 end = dataEnd();
    const auto extent = openExtent();
    expectRefused(*extent, firstFalse, end);
    const Slot lent = entryOf(*extent, 1);
    extent->getGrainDirectory().setGrainInfo(firstFalse, lent.posSectors, lent.sizeSectors);
    Slot found;
    extent->getGrainDirectory().getGrainInfo(firstFalse, found.posSectors, found.sizeSectors);
    EXPECT_EQ(found.posSectors, lent.posSectors);
    extent->seek(firstFalse * grainSize);
    expectRefused(*extent, falseAtEnd, end);
}

TEST_P(CVMDKSparseExtentFileBoundsTest, SlotRunsAndSpaceInfoCountTheEntriesAsTheyAre) {
    store();
    const int64 before = openExtent()->gatherSpaceInfo()->getPayloadSizeInFile();
    pointOutside();
    const auto extent = openExtent();
    bool hasSlot = false;
    EXPECT_EQ(extent->findSlotRun(0, hasSlot), storedGrains);
    EXPECT_TRUE(hasSlot);
    EXPECT_EQ(extent->findSlotRun(firstFalse, hasSlot), storedGrains - firstFalse);
    EXPECT_TRUE(hasSlot);
    EXPECT_EQ(extent->gatherSpaceInfo()->getPayloadSize(), storedGrains * grainSize);
    EXPECT_EQ(extent->gatherSpaceInfo()->getPayloadSizeInFile(), before);
}

TEST_P(CVMDKSparseExtentFileBoundsTest, FirstAndLastSectorForSlotsAreTaken) {
    store();
    const int64 size = storedSlot(0).sizeSectors;
    ASSERT_EQ(size, storedSlot(storedGrains - 1).sizeSectors);
    ASSERT_EQ(storedSlot(0).posSectors, int64{loadNumber(Field_Overhead)});
    ASSERT_EQ(storedSlot(storedGrains - 1).posSectors, dataEnd() / 512 - size);
    expectStored(*openExtent(), 0, storedGrains);
}

// --- Files that were cut off ---

TEST_P(CVMDKSparseExtentFileBoundsTest, FileCutInItsLastSlotLosesThatGrainAndNoOther) {
    store();
    const int last = storedGrains - 1;
    const Slot slot = storedSlot(last);
    const int64 length = slot.posSectors * 512 + 700;
    storeFile(slice(loadFile(), 0, length));
    {
        const auto extent = openExtent();
        if (GetParam()) {
            EXPECT_EQ(takeLog(), TArray<std::string>{foreignEnd});
        }
        const auto refused = [&](const std::function<void()>& action) {
            expectOutside(action, last, slot, length);
        };
        const Bytes fresh = contents(200);
        refused([&] { readAt(*extent, last * grainSize, grainSize); });
        extent->seek(last * grainSize - 1);
        Bytes byte(1);
        extent->read(byte.getData(), 1);
        refused([&] { extent->write(fresh.getData(), int{grainSize}); });
        refused([&] { extent->read(byte.getData(), 1); });

        for (int64 grain = 10; grain < 13; ++grain)
            writeAt(*extent, grain * grainSize, contents(grain));
        extent->flushChanges();
        writeAt(*extent, grainSize, contents(101));
        extent->flushChanges();
        refused([&] { extent->seek(last * grainSize); });
        bool hasSlot = false;
        EXPECT_EQ(extent->findSlotRun(0, hasSlot), storedGrains);
        const auto info = extent->gatherSpaceInfo();
        EXPECT_EQ(info->getPayloadSize(), (storedGrains + 3) * grainSize);
        if (GetParam()) { // the sectors that the slot lacks are more than what is dead
            EXPECT_THAT(takeLog(), ::testing::ElementsAre(::testing::StartsWith(
                                       "warning: Calculated negative dead space value")));
        }
    }
    const auto extent = openExtent({.access = IIOStream::Access_Read});
    expectStored(*extent, 0, 1);
    EXPECT_EQ(readAt(*extent, grainSize, grainSize), contents(101));
    expectStored(*extent, 2, last);
    expectStored(*extent, 10, 13);
    EXPECT_EQ(takeLog(), TArray<std::string>{}) << "the trail stands behind the new slots";
}

TEST_P(CVMDKSparseExtentFileBoundsTest, FileThatEndsWithinItsMetadataTakesNeitherSlotsNorATrail) {
    createExtent({.compressed = GetParam(), .grainCount = grainCount});
    const int64 overhead = loadFile().getUsed() / 512 + 4;
    patchFile<uint64>(Field_Overhead, static_cast<uint64>(overhead));
    const Bytes before = loadFile();
    const TArray<std::string> warnings = GetParam() ? TArray<std::string>{foreignEnd} : TArray<std::string>{};
    openExtent();
    EXPECT_EQ(loadFile(), before);
    EXPECT_EQ(takeLog(), warnings);
    {
        const auto extent = openExtent();
        EXPECT_EQ(takeLog(), warnings);
        const auto expectRefused = [&](const std::function<void()>& action) {
            EXPECT_TRUE(throwsError(
                action, typeid(CIOError), 5,
                "VMDK grain cannot be stored: the extent file ends within its metadata (file size: " +
                    toDecimal(before.getUsed()) + " bytes, metadata: " + toDecimal(overhead * 512) +
                    " bytes).",
                {{"uri", extentName},
                 {"fileSize", toDecimal(before.getUsed())},
                 {"metadataSize", toDecimal(overhead * 512)}}));
        };
        const Bytes prepared = prepare(*extent, 3);
        extent->seek(3 * grainSize);
        expectRefused([&] { extent->writePreparedGrainData(prepared); });
        EXPECT_EQ(loadFile(), before);
        if (!GetParam()) {
            const Bytes grains = randomBytes(3 * grainSize, 1);
            extent->seek(2 * grainSize);
            expectRefused([&] { extent->write(grains.getData(), 3 * grainSize); });
            EXPECT_EQ(extent->getPosition(), 2 * grainSize);
        }
        EXPECT_EQ(readAt(*extent, 0, grainCount * grainSize), Bytes(grainCount * grainSize));
        extent->seek(100);
        extent->write(contents(1).getData(), 500);
        expectRefused([&] { extent->flushChanges(); });
        EXPECT_EQ(loadFile(), before);
    }
    EXPECT_EQ(takeLog().size(), 2U) << "extent and grain tell what they could not write";
    EXPECT_EQ(loadFile(), before);
}

// --- Extents of others ---

TEST_P(CVMDKSparseExtentFileBoundsTest, FileOfAnotherDiskIsLeftAsItIs) {
    createExtent({.compressed = GetParam(), .grainCount = grainCount});
    storeFile([this] {
        Bytes file = loadFile();
        file.append(patternBytes(512).getData(), 512);
        return file;
    }());
    const Bytes before = loadFile();
    {
        const auto extent = openExtent();
        EXPECT_EQ(takeLog().size(), GetParam() ? 1U : 0U);
        const String kind = toText(GetParam());
        EXPECT_LUM_ERROR(
            extent->verifyFitsDisk(8, GetParam(), grainCount * 8 + 1), CIOError, 5,
            "VMDK extent file does not belong to this disk (grain size: 8 sectors, expected: 8; "
            "compressed: " +
                kind + ", expected: " + kind + "; capacity: 160 sectors, expected at least: 161).",
            {{"uri", extentName}, {"grainSize", "8"}, {"compressed", kind}, {"capacity", "160"}});
        extent->flushChanges();
    }
    EXPECT_EQ(loadFile(), before);
    {
        const auto extent = openExtent();
        EXPECT_NO_THROW(extent->verifyFitsDisk(8, GetParam(), grainCount * 8));
        takeLog();
    }
    EXPECT_EQ(loadFile().getUsed(), before.getUsed() + (GetParam() ? trailSize : 0))
        << "one of this disk gets the trail that it lacks";
}

} // namespace tessel::test
