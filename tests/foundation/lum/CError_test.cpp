#include "lum/CError.h"

#include "ErrorClassChecks.h"
#include "lum/CBadPathError.h"
#include "lum/CFileSystemError.h"
#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"

#include <stdexcept>
#include <type_traits>

using namespace lum;
using tessel::test::expectClassIsKept;
using tessel::test::expectSameContents;

namespace {

CError makeFullError() {
    const CIOError cause(CIOError::Code_UnexpectedEnd, "Unexpected end.", CProps().add("position", 512));
    return CError("It went wrong.", "While looking", 17, CProps().add("uri", "file:///a").add("size", 3),
                  &cause);
}

TEST(CError, HoldsWhatItWasGiven) {
    const CError error = makeFullError();

    EXPECT_EQ(error.getMessage(), "It went wrong.");
    EXPECT_EQ(error.getSecondText(), "While looking");
    EXPECT_EQ(error.getCode(), 17);
    EXPECT_EQ(error.getProps(), CProps().add("uri", "file:///a").add("size", 3));
    ASSERT_NE(error.getCause(), nullptr);
    EXPECT_EQ(error.getCause()->getMessage(), "Unexpected end.");
}

TEST(CError, NeedsNoMoreThanAMessage) {
    const CError error("Internal error");

    EXPECT_TRUE(error.getSecondText().isEmpty());
    EXPECT_EQ(error.getCode(), -1);
    EXPECT_TRUE(error.getProps().isEmpty());
    EXPECT_EQ(error.getCause(), nullptr);
}

TEST(CError, KeepsItsClass) {
    expectClassIsKept(makeFullError(), "CError");
}

TEST(CError, CauseKeepsItsClassAndOutlivesTheOriginal) {
    const CError error = makeFullError();

    const CError& cause = *error.getCause();
    EXPECT_EQ(typeid(cause), typeid(CIOError));
    EXPECT_EQ(cause.getCode(), 4);
}

TEST(CError, CausesFormAChain) {
    const CError first("first");
    const CError second("second", "", -1, CProps(), &first);
    const CError third("third", "", -1, CProps(), &second);

    EXPECT_EQ(third.getCause()->getCause()->getMessage(), "first");
    EXPECT_EQ(third.getCause()->getCause()->getCause(), nullptr);
    EXPECT_EQ(describeError(third), "third (caused by: second (caused by: first))");
}

TEST(CError, CanBeAssigned) {
    CError error("old");
    error = makeFullError();

    expectSameContents(CError(error), error);
    EXPECT_STREQ(error.what(), "It went wrong.");
    EXPECT_EQ(error.getCode(), 17);
}

TEST(CError, WhatIsUTF8) {
    EXPECT_STREQ(CError(L"Gr\u00fc\u00dfe \U0001f600").what(), "Gr\xc3\xbc\xc3\x9f"
                                                               "e \xf0\x9f\x98\x80");
}

TEST(CError, WhatReplacesWhatCannotBeEncoded) {
    const wchar_t loneSurrogate[] = {L'a', static_cast<wchar_t>(0xd800), L'b', 0};
    EXPECT_STREQ(CError(loneSurrogate).what(), "a\xef\xbf\xbd"
                                               "b");
}

TEST(CError, CopiesShareWhat) {
    const CError error("text");
    const CError copy(error);
    EXPECT_EQ(static_cast<const void*>(copy.what()), static_cast<const void*>(error.what()));
}

TEST(CError, CopyingCannotFail) {
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<CError>);
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<CInvalidArgError>);
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<CIOError>);
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<CFileSystemError>);
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<CBadPathError>);
}

TEST(DescribeError, GivesOnlyTheMessageWhereThereIsNothingElse) {
    EXPECT_EQ(describeError(CError("Internal error: no reason.")), "Internal error: no reason.");
}

TEST(DescribeError, ShowsTheCodeOfAnIOError) {
    EXPECT_EQ(describeError(CIOError(CIOError::Code_BadFormat, "VMDK disk has no extents.",
                                     CProps().add("uri", "file:///x.vmdk"))),
              "VMDK disk has no extents. (code 5; uri: file:///x.vmdk)");
}

TEST(DescribeError, HidesTheCodeOfOtherErrors) {
    EXPECT_EQ(describeError(CError("Odd.", "", 12)), "Odd.");
}

TEST(DescribeError, ShowsSecondTextParametersAndCauseInThisOrder) {
    EXPECT_EQ(describeError(makeFullError()),
              "It went wrong. (details: While looking; uri: file:///a; size: 3; "
              "caused by: Unexpected end. (code 4; position: 512))");
}

TEST(DescribeError, ShowsTheSourceOfAnInvalidArgument) {
    EXPECT_EQ(describeError(
                  CInvalidArgError("CThing::read", "size must not be negative.", CProps().add("size", -1))),
              "size must not be negative. (source: CThing::read; size: -1)");
}

TEST(DescribeError, NamesTheProblemOfAFileSystemError) {
    const struct {
        CFileSystemError::Problem problem;
        const char* name;
    } rows[] = {
        {CFileSystemError::Problem_Other, "other"},
        {CFileSystemError::Problem_NotFound, "not found"},
        {CFileSystemError::Problem_AlreadyExists, "already exists"},
        {CFileSystemError::Problem_AccessDenied, "access denied"},
        {CFileSystemError::Problem_Locked, "locked"},
        {CFileSystemError::Problem_NoSpace, "no space"},
        {CFileSystemError::Problem_NotSupported, "not supported"},
        {CFileSystemError::Problem_ReadOnlyMedium, "read-only medium"},
        {CFileSystemError::Problem_NotAFile, "not a regular file"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(describeError(CFileSystemError(row.problem, CError("No."))),
                  String("No. (problem: ") + row.name + ")");
}

TEST(DescribeError, NamesTheClassWhereThereIsNoMessage) {
    EXPECT_EQ(describeError(CIOError(CIOError::Code_Closed)), "CIOError (code 10)");
    EXPECT_EQ(describeError(CError("")), "CError");
}

TEST(DescribeError, StaysOneLine) {
    const CError error(L"a\nb\r\nc", L"d\u2028e\u2029f\u0085g", -1, CProps().add("h\v\f", L"\ti"));
    EXPECT_EQ(describeError(error), L"a b  c (details: d e f g; h  :  i)");
}

TEST(DescribeError, ReplacesControlCharacters) {
    const CError cause(L"\u009b2J\u007f");
    const CError error(L"\x1b[31m\a", "", -1, CProps().add("\b", L"\x01"), &cause);
    EXPECT_EQ(describeError(error), L"\ufffd[31m\ufffd (\ufffd: \ufffd; caused by: \ufffd"
                                    L"2J\ufffd)");
}

TEST(DescribeError, ReplacesMarksThatChangeTheDirectionOfWriting) {
    EXPECT_EQ(describeError(CError(L"\u202egpj.exe \u200e\u200f\u061c\u2066\u2069\u202a")),
              L"\ufffdgpj.exe \ufffd\ufffd\ufffd\ufffd\ufffd\ufffd");
}

TEST(DescribeError, LeavesOtherCharactersAlone) {
    const String text(L" ~\u00a0\u00e9\u200b\u202f\u2065\u206a\ufffd\U0001f600");
    EXPECT_EQ(describeError(CError(text)), text);
}

TEST(DescribeError, TakesForeignExceptions) {
    EXPECT_EQ(describeError(std::runtime_error("foreign\ntext")), "foreign text");
    EXPECT_EQ(describeError(std::runtime_error("\xc3\xa4")), L"\u00e4");
}

TEST(DescribeError, TakesForeignTextThatIsNoUTF8AsLatin1) {
    EXPECT_EQ(describeError(std::runtime_error("\xe4")), L"\u00e4");
}

} // namespace
