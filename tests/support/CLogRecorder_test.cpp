#include "CLogRecorder.h"

#include "lum/CIOError.h"

#include <gmock/gmock.h>

#include <stdexcept>

using namespace lum;
using namespace tessel::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Entry = CLogRecorder::Entry;

TEST(CLogRecorder, TakesWhatIsLogged) {
    CLogRecorder recorder;
    logInfo("one");
    logWarning("two");
    logError(CIOError(CIOError::Code_ReadFailed, "broken"), "three", "more");
    logWarning(std::runtime_error("other"), "four", String());
    EXPECT_THAT(recorder.takeEntries(),
                ElementsAre(Entry{ILogSink::Level_Info, "one", String(), String()},
                            Entry{ILogSink::Level_Warning, "two", String(), String()},
                            Entry{ILogSink::Level_Error, "three", "broken", "more"},
                            Entry{ILogSink::Level_Warning, "four", "other", String()}));
    EXPECT_THAT(recorder.takeEntries(), IsEmpty());
}

TEST(CLogRecorder, GivesBackToWhoeverTookItBefore) {
    CLogRecorder outer;
    {
        CLogRecorder inner;
        logInfo("in");
        EXPECT_EQ(inner.takeEntries().size(), 1u);
    }
    logInfo("out");
    EXPECT_THAT(outer.takeEntries(), ElementsAre(Entry{ILogSink::Level_Info, "out", String(), String()}));
}
