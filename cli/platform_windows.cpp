#include "platform_windows.h"

#include "Errors.h"
#include "platform.h"

#include <shellapi.h>

#include <atomic>
#include <memory>
#include <system_error>

namespace tessel::cli {

namespace {

/// What a program that Ctrl+C ended has for an exit code; command interpreters know it.
constexpr DWORD exitCodeOfInterrupt = 0xC000013A;

std::atomic<DWORD> g_exitCode = 0;

bool isHigh(wchar_t unit) noexcept {
    return unit >= 0xD800 && unit < 0xDC00;
}

bool isLow(wchar_t unit) noexcept {
    return unit >= 0xDC00 && unit < 0xE000;
}

/// Called in a thread of its own.
BOOL WINAPI noteControlEvent(DWORD event) {
    windows::noteInterrupt(exitCodeOfInterrupt);
    // When this returns, the process ends with the console or the session; what is tidied up takes less time
    // than the system gives.
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT)
        ::Sleep(INFINITE);
    return TRUE;
}

/// Instead of whatever would write the memory to a file.
LONG WINAPI endAtOnce(EXCEPTION_POINTERS* pointers) {
    ::TerminateProcess(::GetCurrentProcess(), pointers->ExceptionRecord->ExceptionCode);
    return EXCEPTION_EXECUTE_HANDLER;
}

} // namespace

namespace windows {

std::string toUTF8(std::wstring_view text) {
    std::string result;
    result.reserve(text.size());
    const auto add = [&](unsigned int byte) { result += static_cast<char>(byte); };
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned int c = text[i];
        if (isHigh(text[i]) && i + 1 < text.size() && isLow(text[i + 1]))
            c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00U);
        if (c < 0x80) {
            add(c);
            continue;
        }
        if (c < 0x800) {
            add(0xC0 | c >> 6);
        } else {
            if (c < 0x10000) {
                add(0xE0 | c >> 12);
            } else {
                add(0xF0 | c >> 18);
                add(0x80 | (c >> 12 & 0x3F));
            }
            add(0x80 | (c >> 6 & 0x3F));
        }
        add(0x80 | (c & 0x3F));
    }
    return result;
}

std::wstring toUTF16(const std::string& text) {
    if (text.empty())
        return std::wstring();
    const auto convert = [&](wchar_t* to, int room) {
        return ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(),
                                     static_cast<int>(text.size()), to, room);
    };
    std::wstring result(static_cast<std::size_t>(std::max(convert(nullptr, 0), 0)), L'\0');
    if (result.empty() || convert(result.data(), static_cast<int>(result.size())) <= 0)
        throw CFailure(text, "This name cannot be used: Invalid UTF-8 text");
    return result;
}

std::string describe(DWORD error) {
    return describeSystemError(std::error_code(static_cast<int>(error), std::system_category()));
}

HANDLE getInterruptEvent() noexcept {
    static const HANDLE event = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    return event;
}

void noteInterrupt(DWORD exitCode) noexcept {
    DWORD none = 0;
    g_exitCode.compare_exchange_strong(none, exitCode);
    ::SetEvent(getInterruptEvent());
}

} // namespace windows

std::vector<std::string> getArguments(int, char**) {
    // What main() gets has lost the characters that the system's code page does not know.
    int count = 0;
    const std::unique_ptr<wchar_t*, decltype(&::LocalFree)> words(
        ::CommandLineToArgvW(::GetCommandLineW(), &count), &::LocalFree);
    if (!words)
        throw CFailure("", "The command line cannot be read: " + windows::describe(::GetLastError()));
    std::vector<std::string> arguments;
    for (int i = 1; i < count; ++i)
        arguments.push_back(windows::toUTF8(words.get()[i]));
    return arguments;
}

void prepareProcess() {
    // No window asks for a medium in an empty drive.
    ::SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    windows::getInterruptEvent();
    ::SetConsoleCtrlHandler(noteControlEvent, TRUE);
}

void forbidCoreDumps() noexcept {
    ::SetErrorMode(::SetErrorMode(0) | SEM_NOGPFAULTERRORBOX);
    ::SetUnhandledExceptionFilter(endAtOnce);
}

void forgetInterruption() noexcept {
    g_exitCode = 0;
    ::ResetEvent(windows::getInterruptEvent());
}

bool isInterrupted() noexcept {
    return g_exitCode != 0;
}

void throwIfInterrupted() {
    if (isInterrupted())
        throw CInterrupted();
}

void endInterrupted() {
    windows::restoreConsoles();
    // Whoever still waits for input in another thread is not waited for.
    ::TerminateProcess(::GetCurrentProcess(), g_exitCode);
    ::ExitProcess(g_exitCode);
}

std::string describeSystemError(const std::error_code& error) {
    const std::error_condition condition = error.default_error_condition();
    if (condition.category() == std::generic_category() && condition.value() != 0)
        return condition.message();
    wchar_t text[512];
    const DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                         static_cast<DWORD>(error.value()), 0, text, ARRAYSIZE(text), nullptr);
    std::wstring_view words(text, length);
    while (!words.empty() && (words.back() <= L' ' || words.back() == L'.'))
        words.remove_suffix(1);
    return words.empty() ? "Error " + std::to_string(static_cast<DWORD>(error.value()))
                         : windows::toUTF8(words);
}

} // namespace tessel::cli
