#include "foundation/windows/SystemErrors.h"

#include <gtest/gtest.h>

using namespace lum;

namespace {

struct Row {
    DWORD error;
    CFileSystemError::Problem problem;
    const char* message;
};

const Row rows[] = {
    {ERROR_FILE_NOT_FOUND, CFileSystemError::Problem_NotFound, "Cannot try: No such file or directory"},
    {ERROR_PATH_NOT_FOUND, CFileSystemError::Problem_NotFound, "Cannot try: No such file or directory"},
    {ERROR_ALREADY_EXISTS, CFileSystemError::Problem_AlreadyExists, "Cannot try: File exists"},
    {ERROR_ACCESS_DENIED, CFileSystemError::Problem_AccessDenied, "Cannot try: Permission denied"},
    {ERROR_SHARING_VIOLATION, CFileSystemError::Problem_Locked, "Cannot try: Another program uses it"},
    {ERROR_DISK_FULL, CFileSystemError::Problem_NoSpace, "Cannot try: No space left on device"},
    {ERROR_NOT_SUPPORTED, CFileSystemError::Problem_NotSupported, "Cannot try: Operation not supported"},
    {ERROR_WRITE_PROTECT, CFileSystemError::Problem_ReadOnlyMedium, "Cannot try: Read-only file system"},
    {ERROR_IO_DEVICE, CFileSystemError::Problem_Other, "Cannot try: Input/output error"},
    {12345, CFileSystemError::Problem_Other, "Cannot try: Windows error 12345"},
};

} // namespace

TEST(SystemErrors, SayWhatOtherSystemsSay) {
    for (const Row& row : rows) {
        const CFileSystemError error = makeFileSystemError("Cannot try", row.error, CProps().add("uri", "x"));
        EXPECT_EQ(error.getProblem(), row.problem) << row.error;
        EXPECT_EQ(error.getMessage(), String(row.message));
        EXPECT_EQ(error.getProps().getValue("uri"), String("x"));
    }
}

TEST(SystemErrors, LackOfRoomIsACodeOfItsOwn) {
    const auto codeOf = [](DWORD error) {
        return makeIOError(CIOError::Code_WriteFailed, "Cannot write", error, CProps()).getCode();
    };
    EXPECT_EQ(codeOf(ERROR_DISK_FULL), CIOError::Code_NoSpace);
    EXPECT_EQ(codeOf(1295), CIOError::Code_NoSpace) << "ERROR_DISK_QUOTA_EXCEEDED";
    EXPECT_EQ(codeOf(ERROR_IO_DEVICE), CIOError::Code_WriteFailed);
    EXPECT_EQ(codeOf(12345), CIOError::Code_WriteFailed);
}

TEST(SystemErrors, KnowWhatLeadsNowhere) {
    EXPECT_TRUE(leadsNowhere(ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(leadsNowhere(ERROR_PATH_NOT_FOUND));
    EXPECT_TRUE(leadsNowhere(ERROR_INVALID_NAME));
    EXPECT_FALSE(leadsNowhere(ERROR_ACCESS_DENIED));
    EXPECT_FALSE(leadsNowhere(ERROR_BAD_NETPATH)) << "the file may be there when the server is";
}
