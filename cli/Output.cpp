#include "Output.h"

#include "Errors.h"
#include "platform.h"

#include <algorithm>

namespace tessel::cli {

void writeText(const std::string& text) {
    writeOutput(text.data(), static_cast<int64>(text.size()));
}

void writeJson(const Json& json) {
    writeText(json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
}

void writeJsonOfWork(const Json& json) {
    forgetInterruption();
    writeJson(json);
}

std::string formatJsonLine(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void CTable::write() const {
    std::size_t width = 0;
    for (const auto& [label, text] : m_rows)
        width = std::max(width, label.size());
    std::string all;
    for (const auto& [label, text] : m_rows)
        all += label + ":" + std::string(width + 1 - label.size(), ' ') + toHarmlessLine(text) + "\n";
    writeText(all);
}

} // namespace tessel::cli
