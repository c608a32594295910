#pragma once

#include "lum/ILogSink.h"
#include "lum/P.h"

#include <exception>

namespace lum {

/// Sends what is logged to `sink` from now on; null goes back to the default, which writes warnings
/// and errors, a line each, to standard error. Returns the sink that was set before (null for the
/// default). May be called from any thread; the sink must bear calls from any thread too.
TESSEL_EXPORT P<ILogSink> setLogSink(ILogSink* sink);

/// For people who want to know; nothing is wrong.
TESSEL_EXPORT void logInfo(const String& message);
/// Something is not as it should be, and work goes on.
TESSEL_EXPORT void logWarning(const String& message);
/// `secondText` is for people who look closer; it may be empty.
TESSEL_EXPORT void logWarning(const std::exception& error, const String& message, const String& secondText);
/// Something failed that could not be thrown.
TESSEL_EXPORT void logError(const std::exception& error, const String& message, const String& secondText);

/// Reports an error that a destructor had to swallow. `className` is the qualified name of the class.
/// `dataMayBeLost` says whether what failed was the writing of data: logged as an error then, else as
/// a warning. Never throws.
TESSEL_EXPORT void onExceptionInDestructorIgnored(const char* className, const std::exception& error,
                                                  bool dataMayBeLost) noexcept;

} // namespace lum
