#pragma once

#include "lum/TBuffer.h"
#include "tessel/types.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

// What the program needs from the system and the standard library does not offer. One source file per
// kind of system implements all of it.

namespace tessel::cli {

/// The arguments of main() in UTF-8, the program's name left out.
std::vector<std::string> getArguments(int argc, char** argv);

// --- The process ---

/// To be called first. A standard stream that is closed becomes one that fails, lest a file that is opened
/// later takes its place. From now on a request to end (SIGINT, SIGTERM, SIGHUP; Ctrl+C, Ctrl+Break and the
/// end of the console or session) is only noted, so that the program can tidy up; a pipe without a reader and
/// a limit on file sizes become errors of the write.
void prepareProcess();
bool isInterrupted() noexcept;
/// What was asked for so far came too late. A later request to end counts again.
void forgetInterruption() noexcept;
/// From now on no memory of the program is written to a file when it crashes. To be called before a password
/// is read.
void forbidCoreDumps() noexcept;
/// Throws: CInterrupted when the user, or a pipe's reader, wants no more.
void throwIfInterrupted();
/// Ends the process in the way that tells whoever started it that it was interrupted.
[[noreturn]] void endInterrupted();

// --- Terminal and standard streams ---

bool isInputTerminal();
bool isOutputTerminal();
/// Whether a line on standard error can be written over.
bool isErrorTerminal();
/// Whether standard output is a terminal that is known to show colours.
bool isOutputColoured();
/// Columns of the terminal that standard error is; 80 when that cannot be told.
int getErrorWidth();
/// Asks on the terminal, without showing what is typed. The answer is without its line end.
/// Throws: CFailure without a terminal; CInterrupted.
TCryptBuffer<char> askWithoutEcho(const std::string& question);

/// Bytes from the current position to the end of standard input where it is a regular file, else -1.
int64 getInputSize();
/// Reads until `count` bytes are there or the end is met. Throws: CFailure; CInterrupted.
int readInput(void* buffer, int count);
/// From now on nobody waits for input any more: readInput throws CInterrupted instead. For a failure
/// elsewhere that ends the work.
void stopWaitingForInput() noexcept;
/// Throws: CFailure; CInterrupted, also when nobody reads any more.
void writeOutput(const void* data, int64 size);
/// Writes to standard error; what cannot be written is dropped.
void writeErrorText(const std::string& text) noexcept;

// --- Files ---

/// A name in UTF-8 as the system's calls take it. Throws: CFailure where they take text alone, and it is
/// none.
std::filesystem::path toSystemPath(const std::string& name);
/// The same the other way round, for every name that the system has.
std::string fromSystemPath(const std::filesystem::path& path);
/// What the system says of an error, in the words that are the same on every system where it has them.
std::string describeSystemError(const std::error_code& error);

/// Whether this is the name of a drive as a whole, which no folder holds.
bool isDriveName(const std::filesystem::path& path);
/// Whether the last name of a path is a link to another name.
bool isLink(const std::filesystem::path& path) noexcept;
/// The absolute path of something that exists, with all links followed.
std::filesystem::path followLinks(const std::filesystem::path& path, std::error_code& error);
/// Makes a folder that nobody else looks into, as far as files that are made in it get the permissions that
/// they would get beside it.
void createPrivateFolder(const std::filesystem::path& path, std::error_code& error);

/// A raw image: a regular file or, for reading, a block device or a drive. Not copied.
class CRawFile {
public:
    struct URegion {
        int64 start;
        int64 end;
    };

    /// Throws: CFailure, which names the file; so do all methods.
    static CRawFile openForReading(const std::filesystem::path& path);
    /// A new file that nobody had before. Failures name `shownAs`: what the user knows of it.
    static CRawFile createNew(const std::filesystem::path& path, const std::filesystem::path& shownAs);

    CRawFile(CRawFile&& other) noexcept;
    CRawFile& operator=(CRawFile&&) = delete;
    ~CRawFile();

    const std::filesystem::path& getPath() const noexcept { return m_path; }
    int64 getLength() const;
    /// The first region at or behind `position` that is not a hole; start and end are `length` when there is
    /// none. Where the system cannot tell, everything is data.
    URegion findData(int64 position, int64 length) const;
    /// Reads exactly `count` bytes.
    void read(int64 position, void* buffer, int count) const;
    void write(int64 position, const void* data, int size);
    void setLength(int64 length);
    /// Gives the file the owner, as far as this user may, and the permissions of another, with its access
    /// control list. A group of the POSIX kind gets nothing where its rights cannot be given as they were.
    void copyAccessFrom(const std::filesystem::path& path);
    /// Waits until the medium has everything.
    void sync();
    /// Tells of failures that the system kept back.
    void close();

private:
    CRawFile(std::filesystem::path path, std::intptr_t handle) : m_path(std::move(path)), m_handle(handle) {}
    [[noreturn]] void fail(const char* tried) const;

    std::filesystem::path m_path; ///< for messages
    std::intptr_t m_handle;       ///< the system's; -1 for none
};

/// CRawFile::copyAccessFrom for a file that is not open. Throws: CFailure.
void copyAccess(const std::filesystem::path& from, const std::filesystem::path& to);
/// Bytes that a file takes on its medium.
int64 getAllocatedSize(const std::filesystem::path& path);
/// Gives a file another name in the same file system. With `replace` false a file that has the name
/// already is an error, whoever made it. Throws: CFailure.
void moveFile(const std::filesystem::path& from, const std::filesystem::path& to, bool replace);
/// Whether two names, links not followed, are two of one regular file: the file stays when either goes.
bool areNamesOfOneFile(const std::filesystem::path& a, const std::filesystem::path& b);
/// Whether two names, links not followed, are those of two regular files.
bool areNamesOfTwoFiles(const std::filesystem::path& a, const std::filesystem::path& b);
/// Makes names that were given in a folder durable. Throws: CFailure.
void syncFolder(const std::filesystem::path& folder);

} // namespace tessel::cli
