// Every operation on a disk's files fails in turn, while the disk is used: somebody is told, what was flushed
// reads as flushed, what was being changed reads as before or after, and the disk can be gone on with.

#include "CFaultFileSystem.h"
#include "DiskKinds.h"
#include "Figures.h"

#include <algorithm>

namespace tessel::test {
namespace {

/// What goes wrong; each with the first, the second, … operation that it fits.
const FaultRule rules[] = {
    {.operation = FaultRule::Open},
    {.operation = FaultRule::Open, .always = true},
    {.operation = FaultRule::Read},
    {.operation = FaultRule::Read, .always = true},
    {.operation = FaultRule::Write},
    {.operation = FaultRule::Write, .always = true},
    {.operation = FaultRule::Write, .kind = FaultRule::Short},
    {.operation = FaultRule::Write, .kind = FaultRule::Short, .always = true},
    {.operation = FaultRule::Write, .kind = FaultRule::Torn, .always = true},
    {.operation = FaultRule::Write, .kind = FaultRule::FullDisk, .always = true},
    {.operation = FaultRule::Flush},
    {.operation = FaultRule::Flush, .always = true},
    {.operation = FaultRule::SetLength, .kind = FaultRule::Short},
    {.operation = FaultRule::Delete},
    {.operation = FaultRule::Lock}, // one that is never free is waited for
};

class DiskFaultsTest : public DiskKindTest {
protected:
    struct UGrain {
        std::vector<Bytes> current; ///< more than one where a write has failed
        std::vector<Bytes> allowed; ///< all that it has been since it was flushed
        bool hasSlot = false;       ///< that is known to be large enough for all that is written
        bool rewritten = false;     ///< in its place, since it was flushed
    };
    using Scenario = std::function<void()>;

    /// Fails every operation of a scenario in every way, for disks of these kinds.
    void failEverything(const std::vector<std::string>& kindNames, const Scenario& scenario) {
        for (const std::string& name : kindNames) {
            SCOPED_TRACE(name);
            makeFiles(getDiskKind(name));
            int faults = 0;
            for (const FaultRule& rule : rules) {
                faults += failInTurn(rule, scenario);
                if (HasFailure())
                    return;
            }
            EXPECT_GT(faults, 20);
        }
    }

    // --- What scenarios are made of ---

    /// False when it failed. With persistent faults a scenario ends with the first failure.
    bool attempt(const std::function<void()>& step) {
        try {
            step();
            return true;
        } catch (const CError& error) {
            if (!m_seen) {
                // A lock that is refused is told as one that somebody else has.
                EXPECT_TRUE(error.getMessage().EndsWith("Injected fault") ||
                            error.getMessage().Contains("It is locked by another user"))
                    << error.what();
            }
            m_seen = true;
            if (!m_goesOn || !isOpen())
                throw;
            return false;
        }
    }

    bool isOpen() const { return static_cast<bool>(m_disk); }

    void openForScenario(IIOStream::Access access) {
        attempt([&] { m_disk = openDisk(access); });
    }

    /// The rest of the grain at the place stays.
    void change(Place place, int64 offset, const Bytes& data) {
        changeBy(place, offset, data, [&] { writeAt(*m_disk, positionOf(place) + offset, data); });
    }
    void change(Place place, const Bytes& data) { change(place, 0, data); }
    void changePrepared(Place place, const Bytes& data) {
        changeBy(place, 0, data, [&] { writePrepared(*m_disk, positionOf(place), data); });
    }
    void makeIndependent(Place place) {
        attempt([&] { m_disk->makeGrainIndependentOfParent(positionOf(place) / getGrainSize()); });
    }
    void read(Place place) {
        attempt([&] {
            EXPECT_TRUE(isKnown(grainAt(place), readAt(*m_disk, positionOf(place), getGrainSize())));
        });
    }

    /// Flushes; where faults pass, until it succeeds.
    void flush() {
        bool done = false;
        for (int i = 0; i < 4 && !done; ++i)
            done = attempt([&] { m_disk->flushChanges(); });
        if (!done)
            return;
        for (UGrain& grain : m_grains) {
            grain.allowed = grain.current;
            grain.rewritten = grain.rewritten && grain.current.size() > 1; // nobody writes it again
        }
    }

    const Bytes& newData(Place place) const { return randomData(100 + static_cast<unsigned>(place)); }

    /// After a write that was done by half the disk may be refused.
    bool m_mayBeRefused = false;
    bool m_nothingCanBeRemoved = true;
    P<CVMDKDisk> m_disk;

private:
    int64 positionOf(Place place) const { return getPlaces()[static_cast<std::size_t>(place)].position; }
    UGrain& grainAt(Place place) { return m_grains[static_cast<std::size_t>(place)]; }

    void changeBy(Place place, int64 offset, const Bytes& data, const std::function<void()>& write) {
        UGrain& grain = grainAt(place);
        std::vector<Bytes> changed = grain.current;
        for (Bytes& contents : changed)
            std::copy(data.begin(), data.end(), contents.begin() + offset);
        grain.allowed.insert(grain.allowed.end(), changed.begin(), changed.end());
        grain.rewritten = grain.rewritten || grain.hasSlot;
        grain.hasSlot = true; // from the next flush on, which any change of the extent is
        // Until it has succeeded, either may be.
        grain.current.insert(grain.current.end(), changed.begin(), changed.end());
        if (attempt(write))
            grain.current = changed;
    }

    int failInTurn(FaultRule rule, const Scenario& scenario) {
        for (;; ++rule.nth) {
            SCOPED_TRACE(::testing::Message()
                         << "operation " << rule.operation << ", fault " << rule.kind
                         << (rule.always ? ", always from the " : ", once, the ") << rule.nth << ".");
            if (rule.nth > 2000)
                ADD_FAILURE() << "the scenario does not come to an end";
            if (!failOnce(rule, scenario) || HasFailure())
                return rule.nth - 1;
        }
    }

    /// False when there was no such operation.
    bool failOnce(const FaultRule& rule, const Scenario& scenario) {
        restoreFiles();
        m_grains.clear();
        for (std::size_t i = 0; i < placeCount; ++i) {
            const UPlace& place = getPlaces()[i];
            const bool keepsSlot = !kind().options.compressed || i != placeMoved;
            m_grains.push_back({{place.contents}, {place.contents}, place.hasSlot && keepsSlot});
        }
        m_seen = false;
        m_goesOn = !rule.always;
        m_cutsWrites = rule.kind == FaultRule::Short || rule.kind == FaultRule::Torn;
        const P<CFaultFileSystem> faults(new CFaultFileSystem(m_memory.get()));
        faults->addRule(rule);
        if (m_nothingCanBeRemoved && rule.operation == FaultRule::Write &&
            rule.always) // nor can what is half made be removed
            faults->addRule({.operation = FaultRule::Delete, .fileSuffix = ".vmdk", .always = true});
        m_files = faults;
        try {
            scenario();
        } catch (const CError&) {
            EXPECT_TRUE(m_seen);
        }
        m_disk = nullptr;
        m_files = m_memory;
        const bool wasHit = faults->getHits() > 0;
        const bool reported = tookReport();
        if (wasHit) {
            ++figures().faultsInjected;
            if (m_seen || reported)
                ++figures().failuresSeen;
            else
                ++figures().faultsSurvived;
            // A read ahead that is refused is tried again without reading ahead, a lock when it is free.
            const bool mayBeMadeGood =
                !rule.always && (rule.operation == FaultRule::Read || rule.operation == FaultRule::Lock);
            EXPECT_TRUE(m_seen || reported || mayBeMadeGood);
        }
        EXPECT_TRUE(wasHit || !(m_seen || reported));
        if (m_mayBeRefused && m_cutsWrites && isRefused()) {
            ++figures().disksRefused;
            return wasHit;
        }
        expectWhatWasFlushed();
        if (rule.nth % 3 == 1 || !wasHit)
            expectThatItCanBeGoneOnWith();
        return wasHit;
    }

    /// True when a destructor has told of a fault; or a reader, that he has no lock.
    bool tookReport() {
        bool found = false;
        for (const CLogRecorder::Entry& entry : takeLog())
            found = found || (entry.error.EndsWith("Injected fault") &&
                              (entry.message.Contains("Exception ignored in the destructor of") ||
                               entry.message.Contains("Reading goes on without a lock")));
        return found;
    }

    bool isRefused() {
        try {
            openDisk(forReading);
            return false;
        } catch (const CError&) {
            return true;
        }
    }

    static bool isKnown(const UGrain& grain, const std::optional<Bytes>& found) {
        return found && std::find(grain.allowed.begin(), grain.allowed.end(), *found) != grain.allowed.end();
    }

    void expectWhatWasFlushed() {
        const P<CVMDKDisk> disk = openDisk(forReading);
        bool hasChanged = false;
        m_found.clear();
        for (int i = 0; i < placeCount; ++i) {
            const auto place = static_cast<Place>(i);
            const UGrain& grain = grainAt(place);
            const std::optional<Bytes> found = tryRead(*disk, positionOf(place));
            m_found.push_back(found);
            ++figures().grainsCompared;
            hasChanged = hasChanged || found != getPlaces()[static_cast<std::size_t>(i)].contents;
            if (isKnown(grain, found))
                continue;
            if (m_cutsWrites && grain.rewritten && mayBeCutRewrite(found, grain.allowed)) {
                ++figures().grainsUnprotected;
                continue;
            }
            figures().bytesLost += getGrainSize();
            ADD_FAILURE() << "place " << i << (found ? " is wrong" : " cannot be read");
        }
        // Children notice every change.
        EXPECT_TRUE(!hasChanged || disk->getDescriptor()->getContentID() != getContentID());
    }

    void expectThatItCanBeGoneOnWith() {
        {
            const P<CVMDKDisk> disk = openDisk(forWriting);
            for (const Place place : {placeFresh, placeFarFresh, placeLast}) {
                m_found[place] = randomData(200 + static_cast<unsigned>(place));
                writeAt(*disk, positionOf(place), *m_found[place]);
            }
            disk->flushChanges();
        }
        const P<CVMDKDisk> disk = openDisk(forReading);
        for (int i = 0; i < placeCount; ++i)
            EXPECT_TRUE(tryRead(*disk, positionOf(static_cast<Place>(i))) ==
                        m_found[static_cast<std::size_t>(i)])
                << "place " << i << " afterwards";
        takeLog(); // of trails that were not written
    }

    std::vector<UGrain> m_grains;
    std::vector<std::optional<Bytes>> m_found;
    bool m_seen = false;
    bool m_goesOn = false;
    bool m_cutsWrites = false; ///< some of a write may be done when it fails
};

} // namespace

TEST_F(DiskFaultsTest, OpeningAndReading) {
    failEverything({"Plain", "EncryptedCompressed", "Child", "SplitOnDemand"}, [&] {
        openForScenario(forReading);
        for (int place = 0; place < placeCount; ++place)
            read(static_cast<Place>(place));
    });
}

TEST_F(DiskFaultsTest, WritingNewGrains) {
    failEverything({"Plain", "Compressed", "Encrypted", "CompressedChild", "Split", "SmallGrainsOnDemand"},
                   [&] {
                       openForScenario(forWriting);
                       change(placeFresh, newData(placeFresh));
                       change(placeLast, 100, Bytes(300, 7));
                       change(placeInherited, 700, Bytes(900, 8));
                       flush();
                       change(placeFarFresh, newData(placeFarFresh));
                       flush();
                   });
}

TEST_F(DiskFaultsTest, Rewriting) {
    failEverything({"Plain", "Compressed", "Encrypted", "EncryptedCompressed", "Child", "Split"}, [&] {
        openForScenario(forWriting);
        change(placeMoved, newData(placeMoved));
        change(placeInPlace, newData(placeInPlace));
        change(placePartly, 1000, Bytes(2000, 9));
        read(placeNeighbour);
        flush();
        change(placeFar, newData(placeFar));
        flush();
    });
}

TEST_F(DiskFaultsTest, FlushingAgainAndAgain) {
    failEverything({"Plain", "Compressed", "Child", "SmallCompressedGrainsOnDemand"}, [&] {
        openForScenario(forWriting);
        for (int i = 0; i < 3; ++i) {
            change(placeFresh, 100 * i, Bytes(50, static_cast<unsigned char>(i + 1)));
            change(placePartly, 100 * i, Bytes(50, static_cast<unsigned char>(i + 1)));
            flush();
        }
        flush();
    });
}

TEST_F(DiskFaultsTest, CopyingPreparedGrains) {
    failEverything({"Plain", "Compressed", "EncryptedCompressed", "Child", "SplitOnDemand"}, [&] {
        openForScenario(forWriting);
        changePrepared(placePrepared, newData(placePrepared));
        changePrepared(placeInPlace, newData(placeInPlace));
        changePrepared(placeMoved, newData(placeMoved));
        flush();
        changePrepared(placeFarFresh, newData(placeFarFresh));
        flush();
    });
}

TEST_F(DiskFaultsTest, MakingGrainsIndependentOfTheParent) {
    failEverything({"Child", "CompressedChild"}, [&] {
        openForScenario(forWriting);
        for (const Place place : {placeInherited, placeLast, placeNeighbour, placeFarFresh})
            makeIndependent(place);
        flush();
    });
}

TEST_F(DiskFaultsTest, FirstWriteToExtentsThatAreMadeOnDemand) {
    failEverything(
        {"SplitOnDemand", "EncryptedOnDemand", "SmallGrainsOnDemand", "SmallCompressedGrainsOnDemand"}, [&] {
            openForScenario(forWriting);
            change(placeFar, 50, Bytes(20, 3));
            change(placeFarFresh, newData(placeFarFresh));
            change(placeFar, 5000, Bytes(3000, 4));
            flush();
        });
}

TEST_F(DiskFaultsTest, StoringTheDescriptor) {
    m_mayBeRefused = true;
    failEverything({"Child", "CompressedChild"}, [&] {
        openForScenario(forWriting);
        change(placeFresh, newData(placeFresh));
        attempt([&] { m_disk->changeParentRelPath("../folder/parent.vmdk"); });
        change(placeInherited, newData(placeInherited));
        flush();
    });
}

// Whatever becomes of the new disk, the one beside it stays, and the new one can be made again.
TEST_F(DiskFaultsTest, CreatingADisk) {
    m_nothingCanBeRemoved = false; // what is to be replaced can
    failEverything({"Plain", "Compressed", "EncryptedCompressed", "Split", "SplitOnDemand"}, [&] {
        attempt([&] {
            DiskOptions options = kind().options;
            create(options, "new.vmdk");
        });
    });
}

} // namespace tessel::test
