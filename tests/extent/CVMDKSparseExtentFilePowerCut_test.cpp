// Power goes at any moment: what was flushed before reads as flushed.

#include "ExtentFixture.h"
#include "lum/Numbers.h"

#include <algorithm>
#include <optional>
#include <random>

namespace tessel::test {
namespace {

using Journal = CJournalFileSystem;

struct UCase {
    const char* name;
    UExtentShape shape;
    unsigned int seed;
    int operationCount = 60;
    int cacheLimit = CVMDKGrainTableCache::defaultLimit;
};

void PrintTo(const UCase& c, std::ostream* out) {
    *out << c.name << " " << c.seed;
}

struct USlot {
    int64 position;
    int64 size;
};

class CVMDKSparseExtentFilePowerCutTest : public ExtentTest, public ::testing::WithParamInterface<UCase> {
protected:
    struct UGrainState {
        Bytes contents;
        USlot slot;
    };
    /// What was durable when a flush had returned.
    struct UFlushed {
        std::size_t eventCount;
        std::size_t changeCount;
        std::vector<UGrainState> grains;
    };
    /// What a grain held after a write.
    struct UChange {
        std::size_t eventCount; ///< when the write began
        int grain;
        Bytes contents;
    };

    void SetUp() override {
        const UCase& c = GetParam();
        createExtent(c.shape);
        m_grainSize = c.shape.grainSizeSectors * 512;
        m_updater->setContentIDUpdatesEnabled(false);
        m_random.seed(c.seed);
        // Neighbouring grains, and where there are many tables, grains of many of them.
        const int64 stride = std::max<int64>(1, c.shape.grainCount / grainsUsed);
        for (int64 i = 0; i < grainsUsed; ++i)
            m_grainIndices.push_back(i * stride);
        m_current.assign(grainsUsed, Bytes(m_grainSize));
    }

    uint32 draw(uint32 limit) { return static_cast<uint32>(m_random() % limit); }

    P<CVMDKSparseExtentFile> open(IIOStream::Access access = IIOStream::Access_ReadWrite) {
        return openExtent({.access = access, .withCipher = GetParam().shape.encrypted});
    }

    int drawGrain() { return static_cast<int>(draw(grainsUsed)); }

    /// Well or badly compressible, or zeros.
    Bytes drawData(int64 size) {
        switch (draw(6)) {
        case 0:
            return Bytes(size);
        case 1:
        case 2:
            return patternBytes(size, draw(1000));
        default:
            return randomBytes(size, draw(1000000));
        }
    }

    int64 startOf(int grain) const { return m_grainIndices[static_cast<std::size_t>(grain)] * m_grainSize; }

    void writeSomething(CVMDKSparseExtentFile& extent) {
        const int grain = drawGrain();
        const bool whole = draw(3) == 0;
        const int64 offset = whole ? 0 : draw(static_cast<uint32>(m_grainSize));
        const Bytes data =
            drawData(whole ? m_grainSize : 1 + draw(static_cast<uint32>(m_grainSize - offset)));
        Bytes& contents = m_current[static_cast<std::size_t>(grain)];
        std::copy_n(data.getData(), data.getUsed(), contents.getData() + offset);
        m_changes.push_back({m_journal->getEventCount(), grain, contents});
        if (whole && draw(2) == 0)
            writePrepared(extent, grain);
        else
            writeAt(extent, startOf(grain) + offset, data);
    }

    void writePrepared(CVMDKSparseExtentFile& extent, int grain) {
        const P<Bytes> data(new Bytes(m_current[static_cast<std::size_t>(grain)]));
        const P<Bytes> aux(new Bytes);
        extent.seek(startOf(grain));
        extent.writePreparedGrainData(
            *extent.createDataPreparer()->prepareGrainData(data.get(), 0, aux.get()));
    }

    USlot getSlot(CVMDKSparseExtentFile& extent, int grain) const {
        USlot slot{};
        extent.getGrainDirectory().getGrainInfo(m_grainIndices[static_cast<std::size_t>(grain)],
                                                slot.position, slot.size);
        return slot;
    }

    void flush(CVMDKSparseExtentFile& extent) {
        extent.flushChanges();
        noteFlushed(extent);
    }

    void noteFlushed(CVMDKSparseExtentFile& extent) {
        UFlushed flushed{m_journal->getEventCount(), m_changes.size(), {}};
        for (int grain = 0; grain < grainsUsed; ++grain)
            flushed.grains.push_back({m_current[static_cast<std::size_t>(grain)], getSlot(extent, grain)});
        m_flushes.push_back(std::move(flushed));
    }

    void runOperations(int count) {
        m_cache = new CVMDKGrainTableCache(GetParam().cacheLimit);
        const auto extent = open();
        m_journal->start(extentURI);
        noteFlushed(*extent);
        for (int i = 0; i < count; ++i) {
            writeSomething(*extent);
            if (draw(5) == 0)
                readAt(*extent, startOf(drawGrain()), m_grainSize);
            if (draw(8) == 0)
                flush(*extent);
        }
        flush(*extent);
        m_cache = new CVMDKGrainTableCache;
    }

    /// The newest flush that had returned when `eventCount` events had happened.
    const UFlushed& getFlushed(std::size_t eventCount) const {
        const auto behind = std::find_if(m_flushes.begin(), m_flushes.end(), [&](const UFlushed& flushed) {
            return flushed.eventCount > eventCount;
        });
        return *(behind - 1);
    }

    int countWrites(int64 begin, int64 end, std::size_t firstEvent, std::size_t endEvent) const {
        int count = 0;
        for (std::size_t i = firstEvent; i < endEvent; ++i) {
            const Journal::Event& event = m_journal->getEvents()[i];
            if (event.kind == Journal::Write && event.position < end &&
                event.position + event.data.getUsed() > begin)
                ++count;
        }
        return count;
    }

    /// True when a grain was rewritten in its slot, the one it had at the flush or one that it got since:
    /// where that was cut short, nothing can be said of it.
    bool wasRewrittenInPlace(const USlot& flushed, const USlot& found, std::size_t begin,
                             std::size_t end) const {
        const int64 start = flushed.position * 512;
        if (flushed.position > 0 && countWrites(start, start + flushed.size * 512, begin, end) > 0)
            return true;
        return found.position > 0 &&
               countWrites(found.position * 512, found.position * 512 + 1, begin, end) > 1;
    }

    /// The contents of the grain of the file at hand; none where they cannot be read.
    std::optional<Bytes> tryRead(CVMDKSparseExtentFile& extent, int grain) {
        try {
            return readAt(extent, startOf(grain), m_grainSize);
        } catch (const CError&) {
            return std::nullopt;
        }
    }

    /// Checks the file at hand against what must be there after `eventCount` events, and returns what
    /// is there.
    std::vector<std::optional<Bytes>> checkGrains(std::size_t eventCount) {
        const UFlushed& flushed = getFlushed(eventCount);
        const auto extent = open(IIOStream::Access_Read);
        std::vector<std::optional<Bytes>> found;
        for (int grain = 0; grain < grainsUsed; ++grain) {
            found.push_back(tryRead(*extent, grain));
            const UGrainState& state = flushed.grains[static_cast<std::size_t>(grain)];
            bool isRight = found.back() == state.contents;
            bool wasTouched = false;
            for (std::size_t i = flushed.changeCount; i < m_changes.size(); ++i) {
                const UChange& change = m_changes[i];
                if (change.grain != grain || change.eventCount > eventCount)
                    continue;
                wasTouched = true;
                isRight = isRight || found.back() == change.contents;
            }
            if (!isRight && wasTouched &&
                wasRewrittenInPlace(state.slot, getSlot(*extent, grain), flushed.eventCount, eventCount)) {
                ++m_unprotected;
                continue;
            }
            EXPECT_TRUE(isRight) << "grain " << grain << (found.back() ? " is wrong" : " cannot be read");
        }
        return found;
    }

    /// Goes on with the file at hand: what is not written now stays as it was found.
    void checkThatItCanBeGoneOnWith(std::vector<std::optional<Bytes>> expected) {
        {
            const auto extent = open();
            for (int i = 0; i < 4; ++i) {
                const int grain = drawGrain();
                const Bytes data = randomBytes(m_grainSize, draw(1000000));
                writeAt(*extent, startOf(grain), data);
                expected[static_cast<std::size_t>(grain)] = data;
            }
        }
        const auto extent = open(IIOStream::Access_Read);
        for (int grain = 0; grain < grainsUsed; ++grain)
            if (expected[static_cast<std::size_t>(grain)]) {
                EXPECT_EQ(tryRead(*extent, grain), expected[static_cast<std::size_t>(grain)])
                    << "grain " << grain << " afterwards";
            }
    }

    static constexpr int grainsUsed = 24;
    std::mt19937 m_random;
    int64 m_grainSize = 0;
    std::vector<int64> m_grainIndices;
    std::vector<Bytes> m_current;
    std::vector<UChange> m_changes;
    std::vector<UFlushed> m_flushes;
    int m_unprotected = 0;
};

const UCase cases[] = {
    {"Plain", {.grainCount = 24}, 1},
    {"Plain", {.grainCount = 24}, 2},
    {"Compressed", {.compressed = true, .grainCount = 24}, 3},
    {"Compressed", {.compressed = true, .grainCount = 24}, 4},
    {"Compressed", {.compressed = true, .grainCount = 24}, 5},
    {"CompressedEncrypted", {.compressed = true, .grainCount = 24, .encrypted = true}, 6},
    // Tables leave the cache, and are written for that, between two flushes.
    {"PlainManyTables", {.grainCount = 34 * 512, .grainSizeSectors = 2}, 7, 30, 1},
    {"CompressedManyTables", {.compressed = true, .grainCount = 34 * 512, .grainSizeSectors = 2}, 8, 30, 1},
};

std::string nameOf(const ::testing::TestParamInfo<UCase>& info) {
    return std::string(info.param.name) + "_" + std::to_string(info.param.seed);
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Cases, CVMDKSparseExtentFilePowerCutTest, ::testing::ValuesIn(cases), nameOf);

TEST_P(CVMDKSparseExtentFilePowerCutTest, FlushedGrainsOutliveIt) {
    runOperations(GetParam().operationCount);
    const std::size_t total = m_journal->getEventCount();
    ASSERT_GT(total, 50U);
    // A write is kept, lost, or torn at a sector.
    const Journal::Keep keepSome = [this](const Journal::Event& event) -> int64 {
        const uint32 fate = draw(5);
        const int64 size = event.data.getUsed();
        return fate < 2 ? size : fate < 4 ? 0 : divideRoundingUp(size, 512) / 2 * 512;
    };
    for (std::size_t n = 0; n <= total && !HasFailure(); ++n)
        for (int variant = 0; variant < 4 && !HasFailure(); ++variant) {
            SCOPED_TRACE(::testing::Message() << "after event " << n << ", variant " << variant);
            storeFile(variant == 0 ? m_journal->replay(n) : m_journal->replay(n, keepSome));
            checkThatItCanBeGoneOnWith(checkGrains(n));
        }
    EXPECT_GT(m_unprotected, 0); // the exception was met, so that the rest means something
    takeLog();                   // of trails that were not there
}

} // namespace tessel::test
