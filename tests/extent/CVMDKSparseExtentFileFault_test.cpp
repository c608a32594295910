// Every operation on the files fails in turn: somebody is told, and what was flushed can be read.

#include "CFakeDataProvider.h"
#include "ExtentFixture.h"

#include <algorithm>

namespace tessel::test {
namespace {

constexpr int64 grainSize = 4096;
constexpr int grainCount = 20;

// The grains of the tests.
constexpr int grainRewritten = 1; // in its slot
constexpr int grainMoved = 2;     // where extents are compressed; else in its slot
constexpr int grainRead = 5;
constexpr int firstNewGrain = 10;
constexpr int grainNew = 10;
constexpr int grainPrepared = 11;
constexpr int grainFromParent = 12;
constexpr int grainNewLater = 13;
constexpr int grainAfterwards = 14;

struct UCase {
    bool compressed;
    FaultRule::Operation operation;
    FaultRule::Kind kind;
    bool always;
};

class CVMDKSparseExtentFileFaultTest : public ExtentTest, public ::testing::WithParamInterface<UCase> {
protected:
    using Model = std::vector<Bytes>;

    static Bytes oldContents(int grain) {
        if (grain >= firstNewGrain)
            return Bytes(grainSize);
        // The grain that is to move compresses well as yet.
        return grain == grainMoved ? patternBytes(grainSize)
                                   : randomBytes(grainSize, static_cast<unsigned int>(grain));
    }
    static Bytes newContents(int grain) {
        if (grain == grainFromParent)
            return CFakeDataProvider::contentsAt(grain * grainSize, grainSize);
        return randomBytes(grainSize, static_cast<unsigned int>(100 + grain));
    }

    void setUpFiles() {
        m_faults->clearRules();
        createMainFile();
        createExtent({.compressed = GetParam().compressed, .grainCount = grainCount});
        m_durable.clear();
        m_isDurable.assign(grainCount, true);
        {
            const auto extent = openExtent();
            for (int grain = 0; grain < grainCount; ++grain) {
                writeAt(*extent, grain * grainSize, oldContents(grain));
                m_durable.push_back(oldContents(grain));
            }
        }
        createMainFile();
    }

    void change(CVMDKSparseExtentFile& extent, int grain) {
        m_isDurable[static_cast<std::size_t>(grain)] = false;
        if (grain == grainPrepared) {
            const P<Bytes> data(new Bytes(newContents(grain)));
            const P<Bytes> aux(new Bytes);
            extent.seek(grain * grainSize);
            extent.writePreparedGrainData(
                *extent.createDataPreparer()->prepareGrainData(data.get(), 0, aux.get()));
        } else if (grain == grainFromParent) {
            extent.makeGrainIndependentOfParent(grain);
        } else {
            writeAt(extent, grain * grainSize, newContents(grain));
        }
    }

    void flush(CVMDKSparseExtentFile& extent) {
        extent.flushChanges();
        for (std::size_t grain = 0; grain < m_isDurable.size(); ++grain)
            if (!m_isDurable[grain]) {
                m_durable[grain] = newContents(static_cast<int>(grain));
                m_isDurable[grain] = true;
            }
    }

    void changeAll() {
        const P<CFakeDataProvider> provider(new CFakeDataProvider);
        const auto extent = openExtent({.fallback = provider.get()});
        change(*extent, grainNew);
        change(*extent, grainRewritten);
        change(*extent, grainMoved);
        change(*extent, grainPrepared);
        EXPECT_EQ(readAt(*extent, grainRead * grainSize, grainSize), oldContents(grainRead));
        flush(*extent);
        change(*extent, grainFromParent);
        change(*extent, grainNewLater);
        flush(*extent);
        extent->gatherSpaceInfo();
    }

    /// A write in a slot that was done by half leaves anything.
    bool mayBeTorn(int grain) const {
        const bool inItsSlot = grain == grainRewritten || (grain == grainMoved && !GetParam().compressed);
        return inItsSlot && GetParam().kind == FaultRule::Short;
    }

    void expectWhatWasFlushed() {
        const auto extent = openExtent({.access = IIOStream::Access_Read});
        for (int grain = 0; grain < grainCount; ++grain) {
            const auto index = static_cast<std::size_t>(grain);
            if (!m_isDurable[index] && mayBeTorn(grain))
                continue;
            const Bytes found = readAt(*extent, grain * grainSize, grainSize);
            EXPECT_TRUE(found == m_durable[index] || (!m_isDurable[index] && found == newContents(grain)))
                << "grain " << grain;
        }
    }

    Model m_durable;
    std::vector<bool> m_isDurable;
};

std::string nameOf(const ::testing::TestParamInfo<UCase>& info) {
    static const std::map<FaultRule::Operation, std::string> operations = {{FaultRule::Open, "Open"},
                                                                           {FaultRule::Read, "Read"},
                                                                           {FaultRule::Write, "Write"},
                                                                           {FaultRule::Flush, "Flush"}};
    static const std::map<FaultRule::Kind, std::string> kinds = {
        {FaultRule::Refused, "Refused"}, {FaultRule::Short, "Short"}, {FaultRule::FullDisk, "FullDisk"}};
    return std::string(info.param.compressed ? "Compressed" : "Plain") + operations.at(info.param.operation) +
           kinds.at(info.param.kind) + (info.param.always ? "Always" : "Once");
}

std::vector<UCase> makeCases() {
    std::vector<UCase> cases;
    for (const bool compressed : {false, true})
        for (const bool always : {false, true}) {
            for (const FaultRule::Kind kind : {FaultRule::Refused, FaultRule::Short, FaultRule::FullDisk})
                cases.push_back({compressed, FaultRule::Write, kind, always});
            cases.push_back({compressed, FaultRule::Open, FaultRule::Refused, always});
            cases.push_back({compressed, FaultRule::Read, FaultRule::Refused, always});
            cases.push_back({compressed, FaultRule::Flush, FaultRule::FullDisk, always});
        }
    return cases;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Faults, CVMDKSparseExtentFileFaultTest, ::testing::ValuesIn(makeCases()), nameOf);

TEST_P(CVMDKSparseExtentFileFaultTest, FailureIsSeenAndWhatWasFlushedStays) {
    const UCase& c = GetParam();
    for (int nth = 1;; ++nth) {
        SCOPED_TRACE(::testing::Message() << "nth " << nth);
        ASSERT_LT(nth, 1000);
        setUpFiles();
        const int hitsBefore = m_faults->getHits();
        m_faults->addRule({.operation = c.operation, .kind = c.kind, .nth = nth, .always = c.always});
        bool seen = false;
        try {
            changeAll();
        } catch (const CError& error) {
            EXPECT_TRUE(error.getMessage().EndsWith("Injected fault")) << error.what();
            seen = true;
        }
        const bool wasHit = m_faults->getHits() > hitsBefore;
        m_faults->clearRules();
        for (const std::string& line : takeLog())
            seen = seen || line.starts_with("error: Exception ignored in the destructor of tessel::");
        // A read ahead that is refused is tried again without reading ahead.
        if (c.operation != FaultRule::Read || c.always) {
            EXPECT_EQ(seen, wasHit);
        }
        expectWhatWasFlushed();

        // The extent can be gone on with.
        createMainFile();
        {
            const auto extent = openExtent();
            change(*extent, grainAfterwards);
            flush(*extent);
        }
        takeLog(); // of a trail that was not written
        m_isDurable.assign(grainCount, true);
        if (!wasHit)
            break;
        EXPECT_EQ(readAt(*openExtent(), grainAfterwards * grainSize, grainSize),
                  newContents(grainAfterwards));
    }
    for (int grain = firstNewGrain; grain <= grainAfterwards; ++grain)
        EXPECT_EQ(m_durable[static_cast<std::size_t>(grain)], newContents(grain));
    expectWhatWasFlushed();
}

} // namespace tessel::test
