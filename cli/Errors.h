#pragma once

#include "lum/CError.h"
#include "tessel/types.h"

#include <exception>
#include <filesystem>
#include <string>

namespace tessel::cli {

/// What the program's exit code says.
enum ExitCode {
    Exit_Done = 0,
    Exit_Failed = 1,
    Exit_Differ = 1, ///< of compare, for which a failure is Exit_NotCompared
    Exit_Usage = 2,
    Exit_Damaged = 3,
    Exit_NotCompared = 3
};

/// A failure as the user is told of it: which file, and what is wrong with it. UTF-8.
class CFailure : public std::exception {
public:
    /// `file` may be empty.
    CFailure(const std::string& file, const std::string& problem);

    const char* what() const noexcept override { return m_text.c_str(); }

private:
    std::string m_text;
};

/// A command line that cannot be followed.
class CUsageError : public std::exception {
public:
    explicit CUsageError(std::string text) : m_text(std::move(text)) {}
    const char* what() const noexcept override { return m_text.c_str(); }

private:
    std::string m_text;
};

/// The work is done, and what it had to tell is that a disk is damaged. Nothing is left to be told.
class CDamageFound : public std::exception {
public:
    const char* what() const noexcept override { return "damage found"; }
};

/// The work is done, and what it had to tell is that two files differ. Nothing is left to be told.
class CDifferenceFound : public std::exception {
public:
    const char* what() const noexcept override { return "difference found"; }
};

/// The user, or the reader of a pipe, wants no more.
class CInterrupted : public std::exception {
public:
    const char* what() const noexcept override { return "interrupted"; }
};

/// What an error of the library says about a file that the user calls `file`: the message and what else the
/// error names, causes included, but not `file` once more.
std::string explainError(const CError& error, const std::string& file);

/// Runs `action`, whose failures are about `file`. Throws: CFailure in place of the library's errors.
template <class Action>
auto about(const std::string& file, Action action) -> decltype(action()) {
    try {
        return action();
    } catch (const CError& error) {
        throw CFailure(file, explainError(error, file));
    }
}

/// A text of the library with paths in place of "file" URIs; those of Windows begin with the drive.
std::string showPaths(const String& text);

/// The same with only the names of files that are in this folder.
std::string withoutFolder(std::string text, const std::filesystem::path& folder);

/// A text made fit to be part of one line on a terminal, whatever a file's name or content put into it.
std::string toHarmlessLine(const std::string& text);

/// One line on standard error: "tessel: " and the text, made fit for a terminal.
void tellError(const std::string& text) noexcept;
/// The same as "tessel: warning: ".
void tellWarning(const std::string& text) noexcept;
/// The same as "tessel: note: ".
void tellNote(const std::string& text) noexcept;

} // namespace tessel::cli
