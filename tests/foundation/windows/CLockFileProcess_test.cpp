#include "CTemporaryFolder.h"
#include "ErrorMatchers.h"
#include "lum/CLockFile.h"
#include "lum/CNativeFileSystem.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <array>
#include <filesystem>
#include <string>

using namespace lum;
using namespace tessel::test;

namespace {

/// The folder of this program, where the other one is, too.
std::filesystem::path getProgramFolder() {
    std::array<wchar_t, 32768> path{};
    EXPECT_NE(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())), 0u);
    return std::filesystem::path(path.data()).parent_path();
}

/// Another process, which holds a lock file until it is ended.
class CLockHolder {
public:
    explicit CLockHolder(const String& lockFile) {
        SECURITY_ATTRIBUTES inheritable = {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        HANDLE writeEnd = nullptr;
        EXPECT_TRUE(::CreatePipe(&m_readEnd, &writeEnd, &inheritable, 0));
        EXPECT_TRUE(::SetHandleInformation(m_readEnd, HANDLE_FLAG_INHERIT, 0));
        STARTUPINFOW start = {};
        start.cb = sizeof start;
        start.dwFlags = STARTF_USESTDHANDLES;
        start.hStdOutput = writeEnd;
        start.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
        const std::wstring program = (getProgramFolder() / TESSEL_LOCK_HOLDER).wstring();
        std::wstring line = L"\"" + program + L"\" \"" + lockFile.getWideString() + L"\"";
        EXPECT_TRUE(::CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                     nullptr, &start, &m_process));
        ::CloseHandle(writeEnd);
    }
    ~CLockHolder() {
        kill();
        ::CloseHandle(m_readEnd);
        ::CloseHandle(m_process.hThread);
        ::CloseHandle(m_process.hProcess);
    }
    CLockHolder(const CLockHolder&) = delete;
    CLockHolder& operator=(const CLockHolder&) = delete;

    bool waitUntilItHolds() {
        char byte = 0;
        DWORD got = 0;
        return ::ReadFile(m_readEnd, &byte, 1, &got, nullptr) && got == 1 && byte == 'x';
    }
    void kill() {
        ::TerminateProcess(m_process.hProcess, 9);
        ::WaitForSingleObject(m_process.hProcess, INFINITE);
    }

private:
    HANDLE m_readEnd = nullptr;
    PROCESS_INFORMATION m_process = {};
};

} // namespace

TEST(CLockFileProcess, LockOfAProcessThatWasKilledIsGone) {
    const CTemporaryFolder folder;
    const CURI uri = folder.getURI("disk.vmdk.lock");
    const P<IFileSystem> fileSystem(new CNativeFileSystem);

    CLockHolder other(uriToNativePath(uri));
    ASSERT_TRUE(other.waitUntilItHolds());
    EXPECT_FILE_SYSTEM_ERROR(CLockFile(fileSystem.get(), uri, CLockFile::LockType_Shared, false, true),
                             CFileSystemError::Problem_Locked,
                             "Cannot lock \"" + uri.toString(true) +
                                 "\": It is locked by another user or process.",
                             {{"uri", uri.toString(true)}});

    other.kill();
    EXPECT_TRUE(fileSystem->fileExists(uri));
    EXPECT_NO_THROW(CLockFile(fileSystem.get(), uri, CLockFile::LockType_Exclusive, false, true));
    EXPECT_FALSE(fileSystem->fileExists(uri));
}
