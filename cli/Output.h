#pragma once

#include "CProgress.h"

#include <nlohmann/json.hpp>

#include <string>
#include <utility>
#include <vector>

// What a verb answers on standard output. Throws: CFailure when it cannot be written.

namespace tessel::cli {

/// Members stay in the order in which they are added.
using Json = nlohmann::ordered_json;

void writeText(const std::string& text);
/// As indented UTF-8; bytes that are none become U+FFFD.
void writeJson(const Json& json);
/// The same for work that is done: an interruption that came too late to stop it does not keep the answer
/// back.
void writeJsonOfWork(const Json& json);

/// Text of any length in large writes. What was added last is written by finish().
class COutputText {
public:
    /// `progress`, which is borrowed, may be on the terminal that the text is for.
    explicit COutputText(CProgress& progress) : m_progress(&progress) {}

    void add(const std::string& text) {
        m_text += text;
        if (m_text.size() >= 32768)
            finish();
    }
    void finish() {
        m_progress->hide();
        writeText(m_text);
        m_text.clear();
    }

private:
    CProgress* m_progress;
    std::string m_text;
};

/// Of a JSON answer that is too long to be in memory as a whole: one value on one line, as writeJson writes
/// it.
std::string formatJsonLine(const Json& json);

/// Rows of a label and a text, the texts in one column.
class CTable {
public:
    void add(std::string label, std::string text) { m_rows.emplace_back(std::move(label), std::move(text)); }
    void write() const;

private:
    std::vector<std::pair<std::string, std::string>> m_rows;
};

} // namespace tessel::cli
