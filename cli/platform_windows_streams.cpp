#include "Errors.h"
#include "platform.h"
#include "platform_windows.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace tessel::cli {

namespace {

constexpr int64 mostBytesAtOnce = 1 << 20;

/// An exit code for a reader that has gone: the system's own name for that.
constexpr DWORD exitCodeOfBrokenPipe = 0xC000014B;

/// Set when nobody waits for input any more; never reset.
HANDLE getInputOverEvent() noexcept {
    static const HANDLE event = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    return event;
}

HANDLE standardStream(DWORD which) noexcept {
    const HANDLE handle = ::GetStdHandle(which);
    return handle ? handle : INVALID_HANDLE_VALUE;
}

HANDLE getInput() noexcept {
    static const HANDLE handle = standardStream(STD_INPUT_HANDLE);
    return handle;
}

HANDLE getOutput() noexcept {
    static const HANDLE handle = standardStream(STD_OUTPUT_HANDLE);
    return handle;
}

HANDLE getErrorOutput() noexcept {
    static const HANDLE handle = standardStream(STD_ERROR_HANDLE);
    return handle;
}

bool isConsole(HANDLE handle) noexcept {
    DWORD mode = 0;
    return handle != INVALID_HANDLE_VALUE && ::GetConsoleMode(handle, &mode) != 0;
}

[[noreturn]] void failStandardStream(const char* stream, const char* tried, DWORD error) {
    throw CFailure(stream, std::string(tried) + ": " + windows::describe(error));
}

/// A console that understands control sequences as long as the program runs.
class CControlSequences {
public:
    explicit CControlSequences(HANDLE console) noexcept : m_console(console) {
        if (!isConsole(console) || !::GetConsoleMode(console, &m_before))
            return;
        m_areOn = (m_before & ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
        m_wasChanged = !m_areOn && ::SetConsoleMode(console, m_before | ENABLE_PROCESSED_OUTPUT |
                                                                 ENABLE_VIRTUAL_TERMINAL_PROCESSING);
        m_areOn = m_areOn || m_wasChanged;
    }
    CControlSequences(const CControlSequences&) = delete;
    CControlSequences& operator=(const CControlSequences&) = delete;
    ~CControlSequences() { restore(); }

    bool areOn() const noexcept { return m_areOn; }
    void restore() noexcept {
        if (m_wasChanged)
            ::SetConsoleMode(m_console, m_before);
        m_wasChanged = false;
    }

private:
    HANDLE m_console;
    DWORD m_before = 0;
    bool m_areOn = false;
    bool m_wasChanged = false;
};

CControlSequences& sequencesOfOutput() noexcept {
    static CControlSequences sequences(getOutput());
    return sequences;
}

CControlSequences& sequencesOfErrorOutput() noexcept {
    static CControlSequences sequences(getErrorOutput());
    return sequences;
}

/// A read or write that may have to wait for another process is made by a thread of its own: nothing else
/// ends it surely. Whoever asked for it waits, for the user too. One that was given up is never used again.
class CWaitingTransfer {
public:
    using Call = DWORD (*)(void* buffer, DWORD& size);

    explicit CWaitingTransfer(Call call)
        : m_call(call),
          m_bytes(static_cast<std::size_t>(mostBytesAtOnce)),
          m_asked(::CreateEventW(nullptr, FALSE, FALSE, nullptr)),
          m_done(::CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
        const HANDLE thread = ::CreateThread(nullptr, 0, work, this, 0, nullptr);
        if (!m_asked || !m_done || !thread)
            throw CFailure("", "A thread cannot be started: " + windows::describe(::GetLastError()));
        ::CloseHandle(thread);
    }

    char* getBytes() noexcept { return m_bytes.data(); }

    /// Returns the error, and the number of bytes that were transferred. Throws: CInterrupted.
    DWORD run(DWORD& size, HANDLE over) {
        throwIfInterrupted();
        if (over && ::WaitForSingleObject(over, 0) == WAIT_OBJECT_0)
            throw CInterrupted();
        m_size = size;
        ::SetEvent(m_asked);
        const HANDLE events[] = {m_done, windows::getInterruptEvent(), over};
        if (::WaitForMultipleObjects(over ? 3 : 2, events, FALSE, INFINITE) != WAIT_OBJECT_0)
            throw CInterrupted();
        size = m_size;
        return m_error;
    }

private:
    static DWORD WINAPI work(void* transfer) {
        auto* const self = static_cast<CWaitingTransfer*>(transfer);
        for (;;) {
            ::WaitForSingleObject(self->m_asked, INFINITE);
            self->m_error = self->m_call(self->m_bytes.data(), self->m_size);
            ::SetEvent(self->m_done);
        }
    }

    Call m_call;
    std::vector<char> m_bytes;
    HANDLE m_asked;
    HANDLE m_done;
    DWORD m_size = 0;
    DWORD m_error = 0;
};

/// Returns the error; at the end of the input there is none, and no bytes.
DWORD readBytes(void* buffer, DWORD& size) {
    const DWORD wanted = size;
    for (;;) {
        size = 0;
        if (!::ReadFile(getInput(), buffer, wanted, &size, nullptr)) {
            const DWORD error = ::GetLastError();
            return error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF ? ERROR_SUCCESS : error;
        }
        // Whoever writes nothing to a pipe has not closed it.
        if (size > 0 || ::GetFileType(getInput()) != FILE_TYPE_PIPE ||
            !::PeekNamedPipe(getInput(), nullptr, 0, nullptr, nullptr, nullptr))
            return ERROR_SUCCESS;
    }
}

DWORD writeBytes(void* buffer, DWORD& size) {
    const DWORD wanted = size;
    size = 0;
    return ::WriteFile(getOutput(), buffer, wanted, &size, nullptr) ? ERROR_SUCCESS : ::GetLastError();
}

/// Never destroyed: its thread may be waiting until the process ends.
CWaitingTransfer& inputTransfer() {
    static auto* const transfer = new CWaitingTransfer(readBytes);
    return *transfer;
}

CWaitingTransfer& outputTransfer() {
    static auto* const transfer = new CWaitingTransfer(writeBytes);
    return *transfer;
}

/// Returns the error, and how many bytes were read.
DWORD readSome(char* buffer, DWORD& size) {
    if (::GetFileType(getInput()) == FILE_TYPE_DISK) {
        throwIfInterrupted();
        return readBytes(buffer, size);
    }
    const DWORD error = inputTransfer().run(size, getInputOverEvent());
    std::memcpy(buffer, inputTransfer().getBytes(), size);
    return error;
}

DWORD writeSome(const char* data, DWORD& size) {
    if (::GetFileType(getOutput()) == FILE_TYPE_DISK) {
        throwIfInterrupted();
        const DWORD wanted = size;
        size = 0;
        return ::WriteFile(getOutput(), data, wanted, &size, nullptr) ? ERROR_SUCCESS : ::GetLastError();
    }
    std::memcpy(outputTransfer().getBytes(), data, size);
    return outputTransfer().run(size, nullptr);
}

/// False when the console takes no more. What is no UTF-8 shows as U+FFFD.
bool writeToConsole(HANDLE console, const char* text, int64 size) {
    constexpr int64 most = 8192;
    while (size > 0) {
        int64 piece = std::min(size, most);
        // Not between the bytes of a character.
        while (piece < size && piece > most - 4 && (text[piece] & 0xC0) == 0x80)
            --piece;
        std::array<wchar_t, most> units;
        const int count = ::MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(piece), units.data(),
                                                static_cast<int>(units.size()));
        DWORD written = 0;
        if (count <= 0 ||
            !::WriteConsoleW(console, units.data(), static_cast<DWORD>(count), &written, nullptr))
            return false;
        text += piece;
        size -= piece;
    }
    return true;
}

/// The console does not show what is typed as long as this lives.
class CEchoOff {
public:
    explicit CEchoOff(HANDLE console) : m_console(console) {
        m_changed = ::GetConsoleMode(console, &m_before) &&
                    ::SetConsoleMode(console, (m_before & ~static_cast<DWORD>(ENABLE_ECHO_INPUT)) |
                                                  ENABLE_LINE_INPUT | ENABLE_PROCESSED_INPUT);
        ::FlushConsoleInputBuffer(console);
    }
    ~CEchoOff() {
        if (m_changed)
            ::SetConsoleMode(m_console, m_before);
    }
    CEchoOff(const CEchoOff&) = delete;
    CEchoOff& operator=(const CEchoOff&) = delete;

    bool isOff() const noexcept { return m_changed; }

private:
    HANDLE m_console;
    DWORD m_before = 0;
    bool m_changed = false;
};

TCryptBuffer<char> encode(const TCryptBuffer<wchar_t>& text) {
    TCryptBuffer<char> bytes;
    const int units = static_cast<int>(text.getUsed());
    const int size =
        units == 0 ? 0
                   : ::WideCharToMultiByte(CP_UTF8, 0, text.getData(), units, nullptr, 0, nullptr, nullptr);
    bytes.setUsed(size);
    if (size > 0)
        ::WideCharToMultiByte(CP_UTF8, 0, text.getData(), units, bytes.getData(), size, nullptr, nullptr);
    return bytes;
}

} // namespace

void windows::restoreConsoles() noexcept {
    sequencesOfOutput().restore();
    sequencesOfErrorOutput().restore();
}

bool isInputTerminal() {
    return isConsole(getInput());
}

bool isOutputTerminal() {
    return isConsole(getOutput());
}

bool isErrorTerminal() {
    return sequencesOfErrorOutput().areOn();
}

bool isOutputColoured() {
    return sequencesOfOutput().areOn();
}

int getErrorWidth() {
    CONSOLE_SCREEN_BUFFER_INFO info = {};
    if (!::GetConsoleScreenBufferInfo(getErrorOutput(), &info))
        return 80;
    const int width = info.srWindow.Right - info.srWindow.Left + 1;
    return width > 0 ? width : 80;
}

TCryptBuffer<char> askWithoutEcho(const std::string& question) {
    if (!isInputTerminal())
        throw CFailure("standard input", "It is no terminal to ask for a password on");
    const CEchoOff echoOff(getInput());
    if (!echoOff.isOff())
        throw CFailure("standard input", "The terminal cannot hide what is typed");
    throwIfInterrupted();
    writeErrorText(question);
    TCryptBuffer<wchar_t> answer;
    wchar_t c = 0;
    for (;;) {
        DWORD count = 0;
        const bool isRead = ::ReadConsoleW(getInput(), &c, 1, &count, nullptr) != 0;
        const DWORD error = ::GetLastError();
        // Ctrl+C ends the read, and is told of in another thread.
        if (!isRead || count == 0)
            ::WaitForSingleObject(windows::getInterruptEvent(), 1000);
        throwIfInterrupted();
        if (!isRead)
            failStandardStream("standard input", "Cannot read", error);
        if (count == 0 || c == L'\n')
            break;
        if (c != L'\r')
            answer.append(&c, 1);
    }
    c = 0;
    writeErrorText("\n");
    return encode(answer);
}

int64 getInputSize() {
    LARGE_INTEGER size = {};
    LARGE_INTEGER position = {};
    const LARGE_INTEGER nothing = {};
    if (::GetFileType(getInput()) != FILE_TYPE_DISK || !::GetFileSizeEx(getInput(), &size) ||
        !::SetFilePointerEx(getInput(), nothing, &position, FILE_CURRENT) ||
        position.QuadPart > size.QuadPart)
        return -1;
    return size.QuadPart - position.QuadPart;
}

int readInput(void* buffer, int count) {
    int done = 0;
    while (done < count) {
        auto size = static_cast<DWORD>(std::min<int64>(count - done, mostBytesAtOnce));
        const DWORD error = readSome(static_cast<char*>(buffer) + done, size);
        if (error != ERROR_SUCCESS)
            failStandardStream("standard input", "Cannot read", error);
        if (size == 0)
            break;
        done += static_cast<int>(size);
    }
    return done;
}

void stopWaitingForInput() noexcept {
    ::SetEvent(getInputOverEvent());
}

void writeOutput(const void* data, int64 size) {
    const auto* rest = static_cast<const char*>(data);
    if (isOutputTerminal()) {
        throwIfInterrupted();
        if (!writeToConsole(getOutput(), rest, size))
            failStandardStream("standard output", "Cannot write", ::GetLastError());
        return;
    }
    while (size > 0) {
        auto piece = static_cast<DWORD>(std::min(size, mostBytesAtOnce));
        const DWORD error = writeSome(rest, piece);
        if (error == ERROR_BROKEN_PIPE || error == ERROR_NO_DATA || error == ERROR_PIPE_NOT_CONNECTED) {
            windows::noteInterrupt(exitCodeOfBrokenPipe);
            throw CInterrupted();
        }
        if (error != ERROR_SUCCESS)
            failStandardStream("standard output", "Cannot write", error);
        rest += piece;
        size -= piece;
    }
}

void writeErrorText(const std::string& text) noexcept {
    if (isConsole(getErrorOutput())) {
        writeToConsole(getErrorOutput(), text.data(), static_cast<int64>(text.size()));
        return;
    }
    std::size_t done = 0;
    DWORD written = 0;
    while (done < text.size() &&
           ::WriteFile(getErrorOutput(), text.data() + done, static_cast<DWORD>(text.size() - done), &written,
                       nullptr) &&
           written > 0)
        done += written;
}

} // namespace tessel::cli
