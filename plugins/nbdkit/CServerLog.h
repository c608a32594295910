#pragma once

#include "lum/CBase.h"
#include "lum/ILogSink.h"
#include "tessel/types.h"

namespace tessel::nbdkit {

/// Hands what the library logs to the server, which shows it or, in the background, sends it to the system's
/// log.
class CServerLog : public CBase, public ILogSink {
public:
    void log(Level level, const String& message, const std::exception* error,
             const String& secondText) override;
};

} // namespace tessel::nbdkit
