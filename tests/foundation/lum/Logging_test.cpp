#include "lum/Logging.h"

#include "Printing.h"
#include "lum/CBase.h"
#include "lum/CIOError.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace lum;

namespace {

struct Entry {
    ILogSink::Level level;
    String message;
    String error; // described; empty for none
    String secondText;

    friend bool operator==(const Entry&, const Entry&) = default;
};

void PrintTo(const Entry& entry, std::ostream* out) {
    *out << entry.level << " \"" << entry.message.toUTF8Lossy() << "\" \"" << entry.error.toUTF8Lossy()
         << "\" \"" << entry.secondText.toUTF8Lossy() << '"';
}

class CRecordingSink : public CBase, public ILogSink {
public:
    void log(Level level, const String& message, const std::exception* error,
             const String& secondText) override {
        entries.push_back({level, message, error ? describeError(*error) : String(), secondText});
    }

    std::vector<Entry> entries;
};

class CThrowingSink : public CBase, public ILogSink {
public:
    void log(Level, const String&, const std::exception*, const String&) override {
        ++calls;
        throw std::runtime_error("the sink is broken");
    }

    int calls = 0;
};

class CCountingSink : public CBase, public ILogSink {
public:
    explicit CCountingSink(std::atomic<int>& calls) : m_calls(calls) {}
    void log(Level, const String&, const std::exception*, const String&) override { ++m_calls; }

private:
    std::atomic<int>& m_calls;
};

class Logging : public ::testing::Test {
protected:
    void TearDown() override { setLogSink(nullptr); }

    static P<CRecordingSink> record() {
        P<CRecordingSink> sink(new CRecordingSink);
        setLogSink(sink.get());
        return sink;
    }

    /// What `action` writes to standard error.
    template <class Action>
    static std::string capture(Action action) {
        ::testing::internal::CaptureStderr();
        action();
        return ::testing::internal::GetCapturedStderr();
    }

    const CIOError error{CIOError::Code_BadFormat, "Bad magic.", CProps().add("uri", "file:///x")};
};

TEST_F(Logging, PassesEverythingToTheSink) {
    const P<CRecordingSink> sink = record();

    logInfo("info");
    logWarning("warning");
    logWarning(error, "warned", "second");
    logError(error, "failed", "");

    const std::vector<Entry> expected = {
        {ILogSink::Level_Info, "info", "", ""},
        {ILogSink::Level_Warning, "warning", "", ""},
        {ILogSink::Level_Warning, "warned", describeError(error), "second"},
        {ILogSink::Level_Error, "failed", describeError(error), ""},
    };
    EXPECT_EQ(sink->entries, expected);
}

TEST_F(Logging, WithASinkNothingIsWritten) {
    const P<CRecordingSink> sink = record();
    EXPECT_EQ(capture([&] { logError(error, "failed", ""); }), "");
}

TEST_F(Logging, ExchangeGivesTheSinkSetBefore) {
    const P<CRecordingSink> first(new CRecordingSink);
    const P<CRecordingSink> second(new CRecordingSink);

    EXPECT_EQ(setLogSink(first.get()), nullptr);
    EXPECT_EQ(setLogSink(second.get()).get(), first.get());
    EXPECT_EQ(setLogSink(nullptr).get(), second.get());
    EXPECT_EQ(setLogSink(nullptr), nullptr);
}

TEST_F(Logging, SinkIsHeldWhileItIsSet) {
    std::atomic<int> calls = 0;
    setLogSink(new CCountingSink(calls));
    logInfo("a");
    logInfo("b");
    EXPECT_EQ(calls, 2);
}

TEST_F(Logging, DefaultWritesWarningsAndErrorsAsLines) {
    EXPECT_EQ(capture([] { logWarning("careful"); }), "tessel: warning: careful\n");
    EXPECT_EQ(capture([&] { logWarning(error, "Not flushed", ""); }),
              "tessel: warning: Not flushed: Bad magic. (code 5; uri: file:///x)\n");
    EXPECT_EQ(capture([&] { logError(error, "Not flushed", "in passing"); }),
              "tessel: error: Not flushed: Bad magic. (code 5; uri: file:///x) (in passing)\n");
    EXPECT_EQ(capture([&] { logError(error, "", ""); }),
              "tessel: error: Bad magic. (code 5; uri: file:///x)\n");
}

TEST_F(Logging, DefaultKeepsQuietAboutInformation) {
    EXPECT_EQ(capture([] { logInfo("info"); }), "");
}

TEST_F(Logging, DefaultWritesUTF8OnOneLine) {
    EXPECT_EQ(capture([] { logWarning(L"a\nb\x1b \u00e9"); }), "tessel: warning: a b\xef\xbf\xbd \xc3\xa9\n");
}

TEST_F(Logging, DropsWhatTheSinkThrows) {
    const P<CThrowingSink> sink(new CThrowingSink);
    setLogSink(sink.get());

    EXPECT_NO_THROW(logInfo("a"));
    EXPECT_NO_THROW(logWarning("a"));
    EXPECT_NO_THROW(logWarning(error, "a", ""));
    EXPECT_NO_THROW(logError(error, "a", ""));
    onExceptionInDestructorIgnored("CThing", error, true);
    EXPECT_EQ(sink->calls, 5);
}

TEST_F(Logging, SwallowedErrorIsAnErrorWhenDataMayBeLost) {
    const P<CRecordingSink> sink = record();
    onExceptionInDestructorIgnored("tessel::CVMDKGrainTable", error, true);

    const std::vector<Entry> expected = {
        {ILogSink::Level_Error,
         "Exception ignored in the destructor of tessel::CVMDKGrainTable; data may be lost",
         describeError(error), ""}};
    EXPECT_EQ(sink->entries, expected);
}

TEST_F(Logging, SwallowedErrorIsElseAWarning) {
    const P<CRecordingSink> sink = record();
    onExceptionInDestructorIgnored("lum::CLockFile", std::runtime_error("foreign"), false);

    const std::vector<Entry> expected = {
        {ILogSink::Level_Warning, "Exception ignored in the destructor of lum::CLockFile", "foreign", ""}};
    EXPECT_EQ(sink->entries, expected);
}

TEST_F(Logging, SinkMayBeExchangedWhileOthersLog) {
    constexpr int threadCount = 4;
    constexpr int messagesPerThread = 500;
    std::atomic<int> calls = 0;
    setLogSink(new CCountingSink(calls));

    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([] {
            for (int k = 0; k < messagesPerThread; ++k)
                logInfo("message");
        });
    }
    for (int i = 0; i < 200; ++i)
        setLogSink(new CCountingSink(calls));
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(calls, threadCount * messagesPerThread);
}

} // namespace
