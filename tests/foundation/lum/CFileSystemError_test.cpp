#include "lum/CFileSystemError.h"

#include "ErrorClassChecks.h"
#include "lum/CIOError.h"

using namespace lum;
using tessel::test::expectClassIsKept;

namespace {

CError makeError() {
    const CIOError cause(CIOError::Code_ReadFailed, "deeper");
    return CError("Cannot open the file.", "errno 2", 3, CProps().add("uri", "file:///x"), &cause);
}

TEST(CFileSystemError, TellsWhatTheErrorItIsMadeFromTold) {
    const CError original = makeError();
    const CFileSystemError error(CFileSystemError::Problem_NotFound, original);

    EXPECT_EQ(error.getProblem(), CFileSystemError::Problem_NotFound);
    EXPECT_EQ(error.getMessage(), "Cannot open the file.");
    EXPECT_STREQ(error.what(), "Cannot open the file.");
    EXPECT_EQ(error.getSecondText(), "errno 2");
    EXPECT_EQ(error.getCode(), 3);
    EXPECT_EQ(error.getProps(), CProps().add("uri", "file:///x"));
    ASSERT_NE(error.getCause(), nullptr);
    EXPECT_EQ(error.getCause()->getMessage(), "deeper");
}

TEST(CFileSystemError, KeepsItsClassAndProblem) {
    const CFileSystemError error(CFileSystemError::Problem_Locked, makeError());
    expectClassIsKept(error, "CFileSystemError");

    try {
        error.clone()->rethrow();
    } catch (const CFileSystemError& caught) {
        EXPECT_EQ(caught.getProblem(), CFileSystemError::Problem_Locked);
        return;
    }
    FAIL() << "not caught";
}

TEST(CFileSystemError, ProblemsAreStable) {
    EXPECT_EQ(CFileSystemError::Problem_Other, 0);
    EXPECT_EQ(CFileSystemError::Problem_NotFound, 1);
    EXPECT_EQ(CFileSystemError::Problem_AlreadyExists, 2);
    EXPECT_EQ(CFileSystemError::Problem_AccessDenied, 3);
    EXPECT_EQ(CFileSystemError::Problem_Locked, 4);
    EXPECT_EQ(CFileSystemError::Problem_NoSpace, 5);
    EXPECT_EQ(CFileSystemError::Problem_NotSupported, 6);
    EXPECT_EQ(CFileSystemError::Problem_ReadOnlyMedium, 7);
    EXPECT_EQ(CFileSystemError::Problem_NotAFile, 8);
}

} // namespace
