#pragma once

#include "lum/Logging.h"
#include "lum/types.h"

#include <iosfwd>

namespace tessel::test {

/// Takes what the library logs, instead of whoever took it before, for as long as it lives.
class CLogRecorder {
public:
    struct Entry {
        lum::ILogSink::Level level;
        lum::String message;
        /// The message of the error (a CError's, else what()); empty without one.
        lum::String error;
        lum::String secondText;

        friend bool operator==(const Entry&, const Entry&) = default;
    };

    CLogRecorder();
    ~CLogRecorder();
    CLogRecorder(const CLogRecorder&) = delete;
    CLogRecorder& operator=(const CLogRecorder&) = delete;

    /// What was logged so far; it is forgotten by this.
    lum::TArray<Entry> takeEntries();

private:
    class CSink;

    lum::P<CSink> m_sink;
    lum::P<lum::ILogSink> m_previous;
};

/// For the messages of failed tests.
void PrintTo(const CLogRecorder::Entry& entry, std::ostream* out);

} // namespace tessel::test
