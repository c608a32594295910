#include "LogLines.h"

#include "Errors.h"
#include "lum/CError.h"

#include <algorithm>

namespace tessel::cli {

void CLogLines::log(Level level, const String& message, const std::exception* error,
                    const String& secondText) {
    if (level == Level_Info)
        return;
    std::string text = message.toUTF8Lossy();
    if (error)
        text += " (" + describeError(*error).toUTF8Lossy() + ")";
    else if (!secondText.isEmpty())
        text += " (" + secondText.toUTF8Lossy() + ")";
    if (level == Level_Warning) {
        tellWarning(text);
        return;
    }
    const std::lock_guard lock(m_mutex);
    m_errors.push_back(text);
}

bool CLogLines::tellErrors() {
    const std::lock_guard lock(m_mutex);
    for (const std::string& text : m_errors)
        tellError(text);
    return !m_errors.empty();
}

} // namespace tessel::cli
