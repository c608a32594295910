#include "lum/Logging.h"

#include "foundation/lum/SingleLine.h"
#include "lum/CError.h"

#include <cstdio>
#include <mutex>

namespace lum {

namespace {

struct SinkHolder {
    std::mutex mutex;
    P<ILogSink> sink;
};

/// Never destroyed: destructors of other static objects may still log.
SinkHolder& getSinkHolder() {
    static auto* const holder = new SinkHolder;
    return *holder;
}

P<ILogSink> getSink() {
    SinkHolder& holder = getSinkHolder();
    const std::lock_guard lock(holder.mutex);
    return holder.sink;
}

void writeToStandardError(ILogSink::Level level, const String& message, const std::exception* error,
                          const String& secondText) {
    if (level == ILogSink::Level_Info)
        return;
    String text = message;
    if (error) {
        if (!text.isEmpty())
            text += ": ";
        text += describeError(*error);
    }
    if (!secondText.isEmpty())
        text += L" (" + secondText + L")";

    // One call for the whole line, so that lines of several threads do not mix.
    const std::string line = (level == ILogSink::Level_Error ? "tessel: error: " : "tessel: warning: ") +
                             toSingleLine(text).toUTF8Lossy() + "\n";
    (void)std::fwrite(line.data(), 1, line.size(), stderr);
}

/// Never throws: that something could not be logged must not change what the program does.
void log(ILogSink::Level level, const String& message, const std::exception* error,
         const String& secondText) noexcept {
    try {
        if (const P<ILogSink> sink = getSink())
            sink->log(level, message, error, secondText);
        else
            writeToStandardError(level, message, error, secondText);
    } catch (...) { // NOLINT(bugprone-empty-catch): dropped, as promised
    }
}

} // namespace

P<ILogSink> setLogSink(ILogSink* sink) {
    P<ILogSink> exchanged(sink);
    SinkHolder& holder = getSinkHolder();
    const std::lock_guard lock(holder.mutex);
    exchanged.swap(holder.sink);
    return exchanged;
}

void logInfo(const String& message) {
    log(ILogSink::Level_Info, message, nullptr, String());
}

void logWarning(const String& message) {
    log(ILogSink::Level_Warning, message, nullptr, String());
}

void logWarning(const std::exception& error, const String& message, const String& secondText) {
    log(ILogSink::Level_Warning, message, &error, secondText);
}

void logError(const std::exception& error, const String& message, const String& secondText) {
    log(ILogSink::Level_Error, message, &error, secondText);
}

void onExceptionInDestructorIgnored(const char* className, const std::exception& error,
                                    bool dataMayBeLost) noexcept {
    try {
        String message("Exception ignored in the destructor of ");
        message += className;
        if (dataMayBeLost)
            message += "; data may be lost";
        log(dataMayBeLost ? ILogSink::Level_Error : ILogSink::Level_Warning, message, &error, String());
    } catch (...) { // NOLINT(bugprone-empty-catch): no memory for the message; a destructor must go on
    }
}

} // namespace lum
