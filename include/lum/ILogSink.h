#pragma once

#include "lum/IBase.h"
#include "lum/String.h"

#include <exception>

namespace lum {

/// Receives what the library logs. Implemented by callers that want it elsewhere than on standard error.
class TESSEL_EXPORT ILogSink : public virtual IBase {
public:
    /// How grave a message is. The numbers are stable.
    enum Level { Level_Info = 1, Level_Warning = 2, Level_Error = 3 };

    /// `error` is the exception that the message is about, or null; it is valid during the call only.
    /// Whatever this throws is dropped.
    virtual void log(Level level, const String& message, const std::exception* error,
                     const String& secondText) = 0;
};

} // namespace lum
