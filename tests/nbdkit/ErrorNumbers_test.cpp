#include "ErrorNumbers.h"

#include "lum/CFileSystemError.h"
#include "lum/CIOError.h"
#include "tessel/types.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <new>

namespace tessel::nbdkit {
namespace {

CFileSystemError fileError(CFileSystemError::Problem problem) {
    return CFileSystemError(problem, CError("refused"));
}

TEST(ErrorNumbersTest, FullMediumIsNoSpace) {
    EXPECT_EQ(ENOSPC, errorNumberOf(CIOError(CIOError::Code_NoSpace, "full")));
    EXPECT_EQ(ENOSPC, errorNumberOf(fileError(CFileSystemError::Problem_NoSpace)));
}

TEST(ErrorNumbersTest, WhatTheSystemForbidsIsNotPermitted) {
    EXPECT_EQ(EPERM, errorNumberOf(fileError(CFileSystemError::Problem_AccessDenied)));
    EXPECT_EQ(EPERM, errorNumberOf(fileError(CFileSystemError::Problem_ReadOnlyMedium)));
}

TEST(ErrorNumbersTest, LackOfMemoryIsToldAsSuch) {
    EXPECT_EQ(ENOMEM, errorNumberOf(std::bad_alloc()));
}

TEST(ErrorNumbersTest, EverythingElseIsAnInputOutputError) {
    EXPECT_EQ(EIO, errorNumberOf(CError("something")));
    EXPECT_EQ(EIO, errorNumberOf(CIOError(CIOError::Code_BadFormat, "damaged")));
    EXPECT_EQ(EIO, errorNumberOf(CIOError(CIOError::Code_ReadFailed, "unreadable")));
    EXPECT_EQ(EIO, errorNumberOf(fileError(CFileSystemError::Problem_NotFound)));
    EXPECT_EQ(EIO, errorNumberOf(std::runtime_error("something")));
}

TEST(ErrorNumbersTest, CauseCountsWhereTheErrorItselfSaysNothing) {
    const CIOError full(CIOError::Code_NoSpace, "full");
    const CError between("cannot make the file", String(), -1, CProps(), &full);
    EXPECT_EQ(ENOSPC, errorNumberOf(CIOError(CIOError::Code_WriteFailed, "no write", CProps(), &between)));
}

} // namespace
} // namespace tessel::nbdkit
