#include "Errors.h"

#include "DiskFiles.h"
#include "Names.h"
#include "lum/CFileSystemError.h"
#include "lum/CInvalidArgError.h"
#include "platform.h"

#include <new>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

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

constexpr const char* outsideMessage = "The file is outside the folders that may be used.";

/// A disk is locked before it is opened, but the lock file is nothing that the user knows.
std::string withoutLock(std::string path) {
    static const std::string ending = ".lock";
    if (path.ends_with(ending))
        path.resize(path.size() - ending.size());
    return path;
}

/// What only the disk can tell of a file that is not there; empty when it cannot either.
std::string explainIfMissing(const CError& error, const std::string& file) {
    const auto* const failure = dynamic_cast<const CFileSystemError*>(&error);
    if (!failure || failure->getProblem() != CFileSystemError::Problem_NotFound)
        return std::string();
    for (const auto& [name, value] : error.getProps().getEntries())
        if (name == "uri")
            return explainMissingFile(file, showPaths(value));
    return std::string();
}

std::string ownPathOf(const std::string& file) {
    try {
        return showPaths(uriFromName(file).toNormalized().toString(true));
    } catch (const std::exception&) {
        return file; // a name that is none cannot be repeated by an error either
    }
}

String decode(const std::string& text) {
    try {
        return String::fromUTF8(text);
    } catch (const CError&) {
        return String(text.data(), static_cast<int>(text.size())); // a name in another encoding
    }
}

void tell(const char* kind, const std::string& text) noexcept {
    try {
        writeErrorText(kind + toHarmlessLine(text) + "\n");
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
    if (message == "VMDK is encrypted but no password provided")
        return "; --password-file FILE tells it";
    if (message == "No VMDK descriptor found in VMDK file.")
        return "; it may be a part of a disk of several files, which is opened by its main file: the one "
               "without a number in its name";
    if (message == "Slot size directory not found in compressed VMDK." ||
        message == "VMDK file uses an unsupported variant of the 'stream optimized' format.")
        return "; another program may have written it, and qemu-img convert -O vmdk makes a disk of it that "
               "is "
               "read here";
    if (message == outsideMessage)
        return "; --allow DIR lets a disk name files below another folder";
    return std::string();
}

} // namespace

CFailure::CFailure(const std::string& file, const std::string& problem)
    : m_text(file.empty() ? problem : file + ": " + problem) {}

std::string showPaths(const String& text) {
    constexpr bool hasDrives = fs::path::preferred_separator == '\\';
    static const std::string scheme = hasDrives ? "file:///" : "file://";
    std::string shown = text.toUTF8Lossy();
    for (std::size_t at = shown.find("file:///"); at != std::string::npos; at = shown.find("file:///", at))
        shown.erase(at, scheme.size());
    return shown;
}

std::string withoutFolder(std::string text, const fs::path& folder) {
    const CURI uri = uriFromPath(folder);
    for (const std::string& place :
         {showPaths(uri.toString(true)) + "/", showPaths(uri.toNormalized().toString(true)) + "/",
          nameFromPath(folder / "")})
        for (std::size_t at = text.find(place); !place.empty() && at != std::string::npos;
             at = text.find(place))
            text.erase(at, place.size());
    return text;
}

std::string explainError(const CError& error, const std::string& file) {
    if (std::string missing = explainIfMissing(error, file); !missing.empty())
        return missing;
    const std::string ownPath = ownPathOf(file);
    std::string text = showPaths(error.getMessage());
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
        add(showPaths(error.getSecondText()));
    for (const auto& [name, value] : error.getProps().getEntries()) {
        const bool isOutside = name == "uri" && error.getMessage() == outsideMessage;
        const std::string shown = isOutside ? withoutLock(showPaths(value)) : showPaths(value);
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

std::string toHarmlessLine(const std::string& text) {
    // An error without parameters is described by its message alone, as one line without control characters.
    return describeError(CError(decode(text))).toUTF8Lossy();
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
