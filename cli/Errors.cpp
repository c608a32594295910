#include "Errors.h"

#include "Names.h"
#include "lum/CInvalidArgError.h"
#include "platform.h"

#include <new>

namespace tessel::cli {

namespace {

const std::string fileScheme = "file://";

/// A "file" URI in the form for people, as the path that it means.
std::string toPathText(const String& value) {
    std::string text = value.toUTF8Lossy();
    if (text.compare(0, fileScheme.size(), fileScheme) == 0)
        text.erase(0, fileScheme.size());
    return text;
}

/// True when a parameter only repeats what the line says already.
bool isRepetition(const String& name, const std::string& value, const std::string& ownPath) {
    if (name == "uri" || name == "mainFileURI" || name == "mainURI" || name == "childURI")
        return value == ownPath;
    return false;
}

std::string nameOfParameter(const String& name) {
    if (name == "uri")
        return "file";
    if (name == "parentURI")
        return "parent";
    if (name == "childURI")
        return "child";
    if (name == "mainFileURI" || name == "mainURI")
        return "disk";
    return name.toUTF8Lossy();
}

std::string ownPathOf(const std::string& file) {
    try {
        return toPathText(uriFromName(file).toNormalized().toString(true));
    } catch (const std::exception&) {
        return file; // a name that is none cannot be repeated by an error either
    }
}

void tell(const char* kind, const std::string& text) noexcept {
    try {
        // An error without parameters is described by its message alone, as one harmless line.
        const CError line(String::fromUTF8(text));
        writeErrorText(kind + describeError(line).toUTF8Lossy() + "\n");
    } catch (const std::exception&) {
        writeErrorText(std::string(kind) + "a message that cannot be shown\n");
    }
}

/// What helps against errors that the library can only state.
std::string adviceFor(const String& message) {
    if (message.StartsWith("Internal error: actual VMDK descriptor size exceeds target size"))
        return ". The place of the descriptor is full and never grows (into a disk of another program the "
               "line "
               "encoding=\"UTF-8\" is written first); to a descriptor file of its own add zero bytes with "
               "truncate -s +512, or convert the disk into a new one";
    return std::string();
}

} // namespace

CFailure::CFailure(const std::string& file, const std::string& problem)
    : m_text(file.empty() ? problem : file + ": " + problem) {}

std::string explainError(const CError& error, const std::string& file) {
    const std::string ownPath = ownPathOf(file);
    std::string text = error.getMessage().toUTF8Lossy();
    if (text.empty())
        text = error.getClassName();
    const std::string advice = adviceFor(error.getMessage());
    if (!advice.empty() && text.back() == '.')
        text.pop_back();
    text += advice;

    const char* separator = " (";
    const auto add = [&](const std::string& detail) {
        text += separator + detail;
        separator = "; ";
    };
    if (!error.getSecondText().isEmpty())
        add(error.getSecondText().toUTF8Lossy());
    for (const auto& [name, value] : error.getProps().getEntries()) {
        const std::string shown = toPathText(value);
        // What the message quotes already need not follow once more.
        if (!isRepetition(name, shown, ownPath) && !error.getMessage().Contains(value))
            add(nameOfParameter(name) + ": " + shown);
    }
    if (error.getCause())
        add("cause: " + explainError(*error.getCause(), file));
    if (separator[0] == ';')
        text += ')';
    return text;
}

void tellError(const std::string& text) noexcept {
    tell("tessel: ", text);
}

void tellWarning(const std::string& text) noexcept {
    tell("tessel: warning: ", text);
}

void tellNote(const std::string& text) noexcept {
    tell("tessel: note: ", text);
}

} // namespace tessel::cli
