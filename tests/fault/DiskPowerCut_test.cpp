// Power goes at any moment while a disk is used, and of what was not flushed anything may be lost: the disk
// opens again, what was flushed reads as flushed, what was being changed reads as before or after.

#include "CPowerCutFileSystem.h"
#include "DiskKinds.h"
#include "Figures.h"

#include <algorithm>

namespace tessel::test {
namespace {

using Files = CPowerCutFileSystem;

struct UCase {
    const char* kind;
    unsigned int seed;
};

void PrintTo(const UCase& c, std::ostream* out) {
    *out << c.kind << " " << c.seed;
}

std::string nameOf(const ::testing::TestParamInfo<UCase>& info) {
    return std::string(info.param.kind) + "_" + std::to_string(info.param.seed);
}

constexpr int variantCount = 5;

class CPowerCutTest : public DiskKindTest, public ::testing::WithParamInterface<UCase> {
protected:
    void SetUp() override {
        m_random.seed(GetParam().seed);
        RecordProperty("seed", static_cast<int>(GetParam().seed));
        makeFiles(getDiskKind(GetParam().kind));
        restoreFiles();
    }

    /// From here on the files' changes are kept.
    void startRecord() {
        m_record = new Files(m_memory.get());
        m_files = m_record;
    }

    unsigned draw(unsigned limit) { return static_cast<unsigned>(m_random() % limit); }

    /// The ways in which a medium may be left: all that was written is there, or only what is durable; the
    /// last write is torn; some writes are there and some are not; some sectors.
    Files::Keep makeKeep(std::size_t count, int variant) {
        if (variant == 0)
            return nullptr;
        if (variant == 1)
            return [](const Files::Event&, std::size_t, int64) { return false; };
        std::vector<bool> kept(count);
        for (std::size_t i = 0; i < count; ++i)
            kept[i] = variant == 2 || draw(2) == 0;
        return [this, kept, count, variant](const Files::Event&, std::size_t index, int64 sector) {
            const bool torn = sector >= 0 && (variant == 2 ? index + 1 == count : variant == 4);
            return torn ? draw(2) == 0 : kept[index];
        };
    }

    /// Lets the power go behind every event, in every way; `check` looks at what is left, which m_files
    /// then is.
    void cutEverywhere(const std::function<void(std::size_t count, int variant)>& check) {
        const std::size_t total = m_record->getEventCount();
        EXPECT_GT(total, 2U);
        for (std::size_t count = 0; count <= total; ++count)
            for (int variant = 0; variant < variantCount; ++variant) {
                SCOPED_TRACE(::testing::Message() << "after event " << count << ", variant " << variant);
                useFiles(m_record->replay(count, makeKeep(count, variant)));
                ++figures().cutsTried;
                check(count, variant);
                takeLog(); // of trails that were not there
                if (HasFailure()) {
                    if (count > 0)
                        ADD_FAILURE() << ::testing::PrintToString(m_record->getEvents()[count - 1]);
                    return;
                }
            }
    }

    static int64 positionIn(const std::vector<UPlace>& places, int place) {
        return places[static_cast<std::size_t>(place)].position;
    }
    int64 positionOf(int place) const { return positionIn(getPlaces(), place); }

    std::vector<std::optional<Bytes>> readPlaces(CVMDKDisk& disk) const {
        std::vector<std::optional<Bytes>> found;
        for (int place = 0; place < placeCount; ++place) {
            found.push_back(tryRead(disk, positionOf(place)));
            ++figures().grainsCompared;
        }
        return found;
    }

    std::mt19937 m_random;
    P<Files> m_record;
};

class DiskPowerCutTest : public CPowerCutTest {
protected:
    enum Slot { none, small, roomy };
    struct UChange {
        std::size_t eventCount; ///< when it began
        int place;
        Bytes contents;
        bool mayBeCut; ///< it may be a rewrite of what is durable in its place
    };
    struct UFlush {
        std::size_t eventCount; ///< when it had returned
        std::size_t changeCount;
        std::vector<Bytes> contents;
    };

    void noteFlush() {
        m_flushes.push_back({m_record->getEventCount(), m_changes.size(), m_current});
        m_changedSinceFlush.assign(placeCount, false);
    }

    void noteChange(int place, const Bytes& contents, bool compresses) {
        const auto i = static_cast<std::size_t>(place);
        const bool moves = m_slots[i] == small && !compresses;
        bool mayBeCut = m_slots[i] != none && !moves;
        // The slot that it got since the flush is not in a durable table, unless other extents were used.
        if (m_changedSinceFlush[i] && !m_hadRoomAtFlush[i])
            mayBeCut = kind().isSplit();
        if (!m_changedSinceFlush[i])
            m_hadRoomAtFlush[i] = m_slots[i] != none && !moves;
        m_changedSinceFlush[i] = true;
        // Where it is not known whether something fits, the slot counts as roomy.
        m_slots[i] = m_slots[i] == none && compresses && kind().options.compressed ? small : roomy;
        m_changes.push_back({m_record->getEventCount(), place, contents, mayBeCut});
        m_current[i] = contents;
    }

    void changeSomething(CVMDKDisk& disk) {
        const int place = static_cast<int>(draw(placeCount));
        if (place == placeNeighbour)
            return;
        const auto i = static_cast<std::size_t>(place);
        switch (draw(kind().isChild ? 5 : 4)) {
        case 0: {
            const auto offset = static_cast<int64>(draw(static_cast<unsigned>(getGrainSize()) - 600));
            const Bytes data = randomBytes(draw(1000), 1 + draw(599));
            Bytes contents = m_current[i];
            std::copy(data.begin(), data.end(), contents.begin() + offset);
            noteChange(place, contents, true);
            writeAt(disk, positionOf(place) + offset, data);
            break;
        }
        case 1: {
            const Bytes data = randomData(300 + draw(10));
            noteChange(place, data, false);
            writePrepared(disk, positionOf(place), data);
            break;
        }
        case 2: {
            const Bytes data = compressibleData(draw(100));
            noteChange(place, data, true);
            writeAt(disk, positionOf(place), data);
            break;
        }
        case 3: {
            const Bytes data = randomData(300 + draw(10));
            noteChange(place, data, false);
            writeAt(disk, positionOf(place), data);
            break;
        }
        default:
            noteChange(place, m_current[i], true);
            disk.makeGrainIndependentOfParent(positionOf(place) / getGrainSize());
        }
    }

    void runSession(int operations) {
        m_slots.assign(placeCount, none);
        m_hadRoomAtFlush.assign(placeCount, false);
        for (std::size_t i = 0; i < placeCount; ++i) {
            m_current.push_back(getPlaces()[i].contents);
            if (getPlaces()[i].hasSlot)
                m_slots[i] = i == placeMoved && kind().options.compressed ? small : roomy;
        }
        startRecord();
        const P<CVMDKDisk> disk = openDisk(forWriting);
        noteFlush();
        for (int i = 0; i < operations; ++i) {
            changeSomething(*disk);
            if (draw(4) == 0) {
                disk->flushChanges();
                noteFlush();
            }
        }
        disk->flushChanges();
        noteFlush();
    }

    const UFlush& getFlush(std::size_t eventCount) const {
        const auto behind = std::find_if(m_flushes.begin(), m_flushes.end(),
                                         [&](const UFlush& flush) { return flush.eventCount > eventCount; });
        return *(behind - 1);
    }

    void checkPlace(int place, const std::optional<Bytes>& found, std::size_t count, int variant) {
        const UFlush& flush = getFlush(count);
        std::vector<Bytes> allowed = {flush.contents[static_cast<std::size_t>(place)]};
        bool mayBeCut = false;
        for (std::size_t i = flush.changeCount; i < m_changes.size(); ++i)
            if (m_changes[i].place == place && m_changes[i].eventCount <= count) {
                allowed.push_back(m_changes[i].contents);
                mayBeCut = mayBeCut || (m_changes[i].mayBeCut && variant != 0);
            }
        if (found && std::find(allowed.begin(), allowed.end(), *found) != allowed.end())
            return;
        if (mayBeCut && mayBeCutRewrite(found, allowed)) {
            ++figures().grainsUnprotected;
            ++m_unprotected;
            return;
        }
        figures().bytesLost += getGrainSize();
        ADD_FAILURE() << "place " << place << (found ? " is wrong" : " cannot be read");
    }

    void checkDisk(std::size_t count, int variant) {
        std::vector<std::optional<Bytes>> found;
        {
            const P<CVMDKDisk> disk = openDisk(forReading);
            found = readPlaces(*disk);
            bool hasChanged = false;
            for (int place = 0; place < placeCount; ++place) {
                const auto i = static_cast<std::size_t>(place);
                checkPlace(place, found[i], count, variant);
                hasChanged = hasChanged || found[i] != getPlaces()[i].contents;
            }
            // Children notice every change.
            EXPECT_TRUE(!hasChanged || disk->getDescriptor()->getContentID() != getContentID());
        }
        if (count % variantCount == static_cast<std::size_t>(variant))
            checkThatItCanBeGoneOnWith(found);
    }

    void checkThatItCanBeGoneOnWith(std::vector<std::optional<Bytes>>& expected) {
        {
            const P<CVMDKDisk> disk = openDisk(forWriting);
            for (const Place place : {placeFresh, placeFarFresh, placeLast}) {
                expected[place] = randomData(400 + static_cast<unsigned>(place));
                writeAt(*disk, positionOf(place), *expected[place]);
            }
            disk->flushChanges();
        }
        const P<CVMDKDisk> disk = openDisk(forReading);
        EXPECT_TRUE(readPlaces(*disk) == expected) << "afterwards";
    }

    std::vector<Bytes> m_current;
    std::vector<Slot> m_slots;
    std::vector<bool> m_changedSinceFlush;
    std::vector<bool> m_hadRoomAtFlush;
    std::vector<UChange> m_changes;
    std::vector<UFlush> m_flushes;
    int m_unprotected = 0;
};

class CreationPowerCutTest : public CPowerCutTest {};
class DescriptorPowerCutTest : public CPowerCutTest {};

const UCase useCases[] = {{"Plain", 1},
                          {"Compressed", 2},
                          {"Encrypted", 3},
                          {"EncryptedCompressed", 4},
                          {"Child", 5},
                          {"CompressedChild", 6},
                          {"Split", 7},
                          {"SplitOnDemand", 8},
                          {"EncryptedOnDemand", 9},
                          {"SmallGrainsOnDemand", 10},
                          {"SmallGrainsOnDemand", 11},
                          {"SmallCompressedGrainsOnDemand", 12},
                          {"SmallCompressedGrainsOnDemand", 13}};
const UCase creationCases[] = {
    {"Plain", 21}, {"Compressed", 22}, {"Encrypted", 23}, {"Split", 24}, {"SplitOnDemand", 25}};
const UCase descriptorCases[] = {{"Child", 31}, {"ChildOfManyExtents", 32}};

} // namespace

INSTANTIATE_TEST_SUITE_P(Kinds, DiskPowerCutTest, ::testing::ValuesIn(useCases), nameOf);
INSTANTIATE_TEST_SUITE_P(Kinds, CreationPowerCutTest, ::testing::ValuesIn(creationCases), nameOf);
INSTANTIATE_TEST_SUITE_P(Kinds, DescriptorPowerCutTest, ::testing::ValuesIn(descriptorCases), nameOf);

TEST_P(DiskPowerCutTest, WhatWasFlushedIsThere) {
    runSession(13);
    cutEverywhere([&](std::size_t count, int variant) { checkDisk(count, variant); });
}

// The new disk takes the place of an older one: there is the older one, or the new one, or none; never a
// mixture.
TEST_P(CreationPowerCutTest, LeavesNoMixtureOfTheOldDiskAndTheNewOne) {
    startRecord();
    const std::size_t begin = m_record->getEventCount();
    create(kind().options);
    const std::size_t end = m_record->getEventCount();
    ASSERT_GT(end, begin);
    const Bytes zeros = zeroBytes(getGrainSize());
    cutEverywhere([&](std::size_t count, int) {
        bool asBefore = true;
        bool asNew = true;
        try {
            const P<CVMDKDisk> disk = openDisk(forReading);
            for (int place = 0; place < placeCount; ++place) {
                const Bytes found = readAt(*disk, positionOf(place), getGrainSize());
                ++figures().grainsCompared;
                asBefore = asBefore && found == getPlaces()[static_cast<std::size_t>(place)].contents;
                asNew = asNew && found == zeros;
            }
            asBefore = asBefore && disk->getDescriptor()->getContentID() == getContentID();
        } catch (const CError&) {
            ++figures().disksRefused;
            EXPECT_LT(count, end);
            EXPECT_NO_THROW(create(kind().options));
            return;
        }
        EXPECT_TRUE(asBefore || asNew);
        EXPECT_TRUE(asNew || count < end);
    });
}

// A path of another length shifts the text behind it. Where that is more than a sector, a cut in the middle
// may leave a mixture of both texts, and nothing can be said of the disk; else it is refused, or as before or
// after.
TEST_P(DescriptorPowerCutTest, LeavesTheDataUnlessTheTextIsMixed) {
    for (int folders = 0; folders < 12; ++folders) {
        SCOPED_TRACE(::testing::Message() << folders << " folders");
        restoreFiles();
        startRecord();
        std::string path = "parent.vmdk";
        for (int i = 0; i < folders; ++i)
            path = (i % 3 == 0 ? "../folder/" : "./") + path;
        const String before = descriptorText();
        openDisk(forWriting)->changeParentRelPath(String::fromUTF8(path));
        const String after = descriptorText();
        const std::size_t end = m_record->getEventCount();
        cutEverywhere([&](std::size_t count, int variant) {
            const String text = descriptorText();
            if (text != before && text != after) {
                ++figures().descriptorsMixed;
                EXPECT_LT(count, end);
                EXPECT_GT(variant, 1); // not when writes are done or not done as a whole
                EXPECT_GT(after.getLength(), 512);
                return;
            }
            try {
                const P<CVMDKDisk> disk = openDisk(forReading);
                EXPECT_EQ(disk->getSizeBytes(), 8 * MiB);
                for (int place = 0; place < placeCount; ++place) {
                    EXPECT_TRUE(readAt(*disk, positionOf(place), getGrainSize()) ==
                                getPlaces()[static_cast<std::size_t>(place)].contents);
                    ++figures().grainsCompared;
                }
            } catch (const CError&) {
                ++figures().disksRefused;
                EXPECT_LT(count, end);
            }
        });
    }
}

} // namespace tessel::test
