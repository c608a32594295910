#include "CServerLog.h"

#include "Server.h"
#include "lum/CError.h"

namespace tessel::nbdkit {

void CServerLog::log(Level level, const String& message, const std::exception* error,
                     const String& secondText) {
    std::string text = toServerLine(message);
    if (error)
        text += " (" + describeError(*error).toUTF8Lossy() + ")";
    else if (!secondText.isEmpty())
        text += " (" + toServerLine(secondText) + ")";
    if (level == Level_Info)
        nbdkit_debug("%s", text.c_str());
    else
        nbdkit_error("%s%s", level == Level_Warning ? "warning: " : "", text.c_str());
}

} // namespace tessel::nbdkit
