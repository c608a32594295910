#pragma once

#include "lum/CBase.h"
#include "lum/ILogSink.h"
#include "tessel/types.h"

#include <mutex>
#include <string>
#include <vector>

namespace tessel::cli {

/// Shows the library's warnings as lines of the program. Errors are kept: nearly all of them are thrown as
/// well, and told by whoever catches them.
class CLogLines : public CBase, public ILogSink {
public:
    void log(Level level, const String& message, const std::exception* error,
             const String& secondText) override;

    /// Shows the errors that were logged. True when there were any.
    bool tellErrors();

private:
    std::mutex m_mutex;
    std::vector<std::string> m_errors;
};

} // namespace tessel::cli
