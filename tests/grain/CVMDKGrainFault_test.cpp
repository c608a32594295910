#include "CGrainFixture.h"
#include "CLogRecorder.h"
#include "tessel/CVMDKGrain.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

struct Parameters {
    bool compressed;
    bool encrypted;
    bool buffered;
    int cacheLimit;
    FaultRule::Kind kind;
    bool always;
    /// The buffered stream bears a read that is refused once, when it was only reading ahead.
    FaultRule::Operation operation = FaultRule::Any;
};

void PrintTo(const Parameters& parameters, std::ostream* out) {
    *out << (parameters.compressed ? "compressed " : "plain ") << (parameters.encrypted ? "encrypted " : "")
         << (parameters.buffered ? "buffered " : "") << "cache of " << parameters.cacheLimit << ", fault "
         << parameters.kind << (parameters.always ? " for good" : " once");
}

/// Writes, rewrites, moves and flushes of grains on a file whose operations fail, each in turn.
class CVMDKGrainFaultTest : public CGrainFixture, public ::testing::WithParamInterface<Parameters> {
protected:
    static constexpr int64 untouched = 0;
    static constexpr int64 rewritten = 1;
    static constexpr int64 fresh = 5;
    static constexpr int64 farAway = 33 * 512 + 7; ///< in another batch of tables
    static constexpr int64 grainCount = 34 * 512;

    /// Two grains flushed, none pending.
    void makeFlushed() {
        m_extent = std::make_unique<CTestExtent>(CTestExtent::Settings{.compressed = GetParam().compressed,
                                                                       .encrypted = GetParam().encrypted,
                                                                       .grainCount = grainCount,
                                                                       .cacheLimit = GetParam().cacheLimit,
                                                                       .buffered = GetParam().buffered});
        m_extent->open();
        m_contents = {{untouched, patternBytes(grainBytes, 1)},
                      {rewritten, patternBytes(grainBytes, 2)},
                      {fresh, Bytes(grainBytes)},
                      {farAway, Bytes(grainBytes)}};
        m_flushed = m_contents;
        m_extent->write(untouched, 0, m_contents[untouched]);
        m_extent->write(rewritten, 0, m_contents[rewritten]);
        m_extent->flush();
    }
    /// Writes that the grain took; what it refused is not in the contents.
    void write(int64 grainIndex, int64 offset, const Bytes& bytes) {
        m_extent->write(grainIndex, offset, bytes);
        m_contents[grainIndex] = overwritten(m_contents[grainIndex], offset, bytes);
    }
    void changeAndFlush() {
        write(rewritten, 0, noise(grainBytes, 1)); // in place, or into a larger slot
        write(fresh, 100, noise(1000, 2));
        write(farAway, 200, noise(2000, 3));
        write(fresh, 1000, noise(1000, 4));
        m_extent->flush();
    }
    /// Runs the changes with the nth operation failing. True when the fault was met.
    bool runWithFault(int nth) {
        m_extent->faults().addRule({.operation = GetParam().operation,
                                    .kind = GetParam().kind,
                                    .nth = nth,
                                    .always = GetParam().always});
        bool thrown = false;
        CLogRecorder log;
        try {
            changeAndFlush();
        } catch (const CIOError&) {
            thrown = true;
        }
        const bool met = m_extent->faults().getHits() > 0;
        const bool seen = thrown || !log.takeEntries().empty();
        EXPECT_EQ(met, seen) << nth << ": a fault that was met is a failure seen";
        return met;
    }
    Bytes readAnew(int64 grainIndex) { return m_extent->read(grainIndex); }

    TMap<int64, Bytes> m_contents;
    TMap<int64, Bytes> m_flushed;
};

TEST_P(CVMDKGrainFaultTest, LaterFlushStoresEverythingThatWasTaken) {
    int nth = 1;
    for (bool met = true; met; ++nth) {
        makeFlushed();
        met = runWithFault(nth);
        m_extent->endFaults();
        ASSERT_NO_THROW(m_extent->flush()) << nth;
        CLogRecorder log;
        m_extent->open(IIOStream::Access_Read);
        EXPECT_THAT(log.takeEntries(), ::testing::IsEmpty()) << nth;
        for (const auto& [grainIndex, contents] : m_contents)
            ASSERT_EQ(readAnew(grainIndex), contents) << nth << ", grain " << grainIndex;
    }
    EXPECT_GE(nth, 3) << "operations that can fail";
}

TEST_P(CVMDKGrainFaultTest, WhatWasFlushedBeforeStillReadsAsFlushed) {
    const bool inPlace = !GetParam().compressed;
    for (int nth = 1, met = 1; met != 0; ++nth) {
        makeFlushed();
        met = runWithFault(nth) ? 1 : 0;
        // Nothing more reaches the file, as when the program ends here.
        m_extent->faults().addRule({.always = true});
        {
            CLogRecorder log; // of the destructors
            m_extent->close();
        }
        m_extent->faults().clearRules();
        CLogRecorder log; // the trail may be missing
        m_extent->open();
        ASSERT_EQ(readAnew(untouched), m_flushed[untouched]) << nth;
        // A rewrite in place that was torn is the one thing that nobody can promise.
        if (!(inPlace && GetParam().kind == FaultRule::Short)) {
            const Bytes found = readAnew(rewritten);
            ASSERT_TRUE(found == m_flushed[rewritten] || found == noise(grainBytes, 1)) << nth;
        }
        const Bytes far = readAnew(farAway);
        ASSERT_TRUE(far == m_flushed[farAway] || far == overwritten(Bytes(grainBytes), 200, noise(2000, 3)))
            << nth;

        // And it goes on.
        m_extent->write(untouched + 20, 0, noise(grainBytes, 9));
        m_extent->flush();
        m_extent->open(IIOStream::Access_Read);
        ASSERT_EQ(readAnew(untouched + 20), noise(grainBytes, 9)) << nth;
        ASSERT_EQ(readAnew(untouched), m_flushed[untouched]) << nth;
    }
}

TEST_P(CVMDKGrainFaultTest, DestructorsReportWhatTheyCannotStore) {
    int nth = 1;
    for (bool met = true; met; ++nth) {
        makeFlushed();
        write(rewritten, 0, noise(grainBytes, 1));
        m_extent->faults().addRule({.operation = FaultRule::Write,
                                    .kind = GetParam().kind,
                                    .nth = nth,
                                    .always = GetParam().always});
        CLogRecorder log;
        m_extent->close();
        met = m_extent->faults().getHits() > 0;
        const auto entries = log.takeEntries();
        EXPECT_EQ(!entries.empty(), met) << nth;
        for (const auto& entry : entries)
            EXPECT_EQ(entry.level, ILogSink::Level_Error) << nth;
        m_extent->faults().clearRules();
        m_extent->open();
        ASSERT_EQ(readAnew(untouched), m_flushed[untouched]) << nth;
    }
    EXPECT_GE(nth, 3) << "writes that can fail";
}

TArray<Parameters> makeParameters() {
    TArray<Parameters> all;
    for (const bool always : {false, true}) {
        all.push_back({false, false, false, 1024, FaultRule::Refused, always});
        all.push_back({true, false, false, 1024, FaultRule::Refused, always});
        all.push_back({true, true, false, 1024, FaultRule::Short, always});
        all.push_back({false, true, false, 1024, FaultRule::Short, always});
        all.push_back({true, false, false, 5, FaultRule::FullDisk, always});
        all.push_back({true, false, false, 32, FaultRule::Refused, always});
        for (const FaultRule::Operation operation : {FaultRule::Write, FaultRule::Flush}) {
            all.push_back({false, false, true, 1024, FaultRule::Refused, always, operation});
            all.push_back({true, true, true, 1024, FaultRule::Short, always, operation});
            all.push_back({true, false, true, 33, FaultRule::FullDisk, always, operation});
        }
    }
    return all;
}

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKGrainFaultTest, ::testing::ValuesIn(makeParameters()));

} // namespace
} // namespace tessel::test
