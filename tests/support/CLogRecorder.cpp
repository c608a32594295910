#include "CLogRecorder.h"

#include "lum/CBase.h"
#include "lum/CError.h"

#include <mutex>
#include <ostream>
#include <utility>

using namespace lum;

namespace tessel::test {

class CLogRecorder::CSink : public CBase, public ILogSink {
public:
    void log(Level level, const String& message, const std::exception* error,
             const String& secondText) override {
        const auto* const libraryError = dynamic_cast<const CError*>(error);
        Entry entry{level, message, String(), secondText};
        if (libraryError)
            entry.error = libraryError->getMessage();
        else if (error)
            entry.error = String(error->what());
        const std::lock_guard guard(m_mutex);
        m_entries.push_back(std::move(entry));
    }

    TArray<Entry> takeEntries() {
        const std::lock_guard guard(m_mutex);
        return std::exchange(m_entries, {});
    }

private:
    std::mutex m_mutex;
    TArray<Entry> m_entries;
};

CLogRecorder::CLogRecorder() : m_sink(new CSink), m_previous(setLogSink(m_sink.get())) {}

CLogRecorder::~CLogRecorder() {
    setLogSink(m_previous.get());
}

TArray<CLogRecorder::Entry> CLogRecorder::takeEntries() {
    return m_sink->takeEntries();
}

void PrintTo(const CLogRecorder::Entry& entry, std::ostream* out) {
    *out << "{level " << entry.level << ", \"" << entry.message.toUTF8Lossy() << "\", \""
         << entry.error.toUTF8Lossy() << "\", \"" << entry.secondText.toUTF8Lossy() << "\"}";
}

} // namespace tessel::test
