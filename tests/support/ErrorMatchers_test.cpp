#include "ErrorMatchers.h"

#include <gtest/gtest-spi.h>

#include <stdexcept>

using namespace lum;
using namespace tessel::test;

namespace {

void throwIOError() {
    throw CIOError(CIOError::Code_UnexpectedEnd, L"Too short \x20AC",
                   CProps().add("uri", "file:/a").add("position", 5));
}

void throwLocked() {
    throw CFileSystemError(CFileSystemError::Problem_Locked,
                           CError("In use", String(), -1, CProps().add("uri", "file:/a")));
}

void throwInvalidArg() {
    throw CInvalidArgError("CThing::do", "Invalid thing", CProps().add("thing", 7));
}

void throwForeign() {
    throw std::runtime_error("foreign");
}

void throwNothing() {}

std::string messageOf(const ::testing::AssertionResult& result) {
    return result ? "passes" : result.message();
}

} // namespace

TEST(ErrorMatchers, AcceptTheErrorDescribed) {
    EXPECT_LUM_ERROR(throwIOError(), CIOError, 4, L"Too short \x20AC",
                     {{"uri", "file:/a"}, {"position", "5"}});
    EXPECT_LUM_ERROR(throwLocked(), CFileSystemError, -1, "In use", {{"uri", "file:/a"}});
    EXPECT_FILE_SYSTEM_ERROR(throwLocked(), CFileSystemError::Problem_Locked, "In use", {{"uri", "file:/a"}});
    EXPECT_INVALID_ARG_ERROR(throwInvalidArg(), "CThing::do", "Invalid thing", {{"thing", "7"}});
    EXPECT_LUM_ERROR(throw CError("Bare"), CError, -1, "Bare");
    EXPECT_EQ(catchError(throwIOError)->getCode(), 4);
}

TEST(ErrorMatchers, RefuseWhatDiffersInAnyPart) {
    const auto check = [](const std::type_info& type, int code, const wchar_t* message, ExpectedProps props) {
        return messageOf(throwsError(throwIOError, type, code, message, props));
    };
    const wchar_t* const message = L"Too short \x20AC";
    EXPECT_EQ(check(typeid(CIOError), 4, message, {{"uri", "file:/a"}, {"position", "5"}}), "passes");
    EXPECT_NE(check(typeid(CError), 4, message, {{"uri", "file:/a"}, {"position", "5"}}), "passes");
    EXPECT_NE(check(typeid(CIOError), 5, message, {{"uri", "file:/a"}, {"position", "5"}}), "passes");
    EXPECT_NE(check(typeid(CIOError), 4, L"Too short", {{"uri", "file:/a"}, {"position", "5"}}), "passes");
    EXPECT_NE(check(typeid(CIOError), 4, message, {{"position", "5"}, {"uri", "file:/a"}}), "passes");
    EXPECT_NE(check(typeid(CIOError), 4, message, {{"uri", "file:/a"}}), "passes");
    EXPECT_NE(check(typeid(CIOError), 4, message, {}), "passes");
}

TEST(ErrorMatchers, RefuseAnotherProblemOrClass) {
    const ExpectedProps props = {{"uri", "file:/a"}};
    EXPECT_TRUE(throwsFileSystemError(throwLocked, CFileSystemError::Problem_Locked, "In use", props));
    EXPECT_FALSE(throwsFileSystemError(throwLocked, CFileSystemError::Problem_NotFound, "In use", props));
    EXPECT_FALSE(throwsFileSystemError(throwLocked, CFileSystemError::Problem_Locked, "Used", props));
    EXPECT_FALSE(throwsFileSystemError(throwIOError, CFileSystemError::Problem_Locked, "In use", props));
    EXPECT_FALSE(throwsFileSystemError(throwNothing, CFileSystemError::Problem_Locked, "In use", props));
}

TEST(ErrorMatchers, RefuseAnotherSourceOrClass) {
    const ExpectedProps props = {{"thing", "7"}};
    EXPECT_TRUE(throwsInvalidArgError(throwInvalidArg, "CThing::do", "Invalid thing", props));
    EXPECT_FALSE(throwsInvalidArgError(throwInvalidArg, "CThing::be", "Invalid thing", props));
    EXPECT_FALSE(throwsInvalidArgError(throwInvalidArg, "CThing::do", "Valid thing", props));
    EXPECT_FALSE(throwsInvalidArgError(throwIOError, "CThing::do", "Invalid thing", props));
    EXPECT_FALSE(throwsInvalidArgError(throwNothing, "CThing::do", "Invalid thing", props));
}

TEST(ErrorMatchers, RefuseASecondTextThatNobodySpokeOf) {
    const CError error("Failed", "because", -1, CProps().add("uri", "file:/a"));
    EXPECT_EQ(messageOf(matchesError(error, typeid(CError), -1, "Failed", {{"uri", "file:/a"}})),
              "second text is \"because\", expected \"\"; message: \"Failed\"");
    const auto throwWithText = [&] { throw CFileSystemError(CFileSystemError::Problem_Locked, error); };
    EXPECT_FALSE(throwsFileSystemError(throwWithText, CFileSystemError::Problem_Locked, "Failed",
                                       {{"uri", "file:/a"}}));
}

TEST(ErrorMatchers, AcceptTheSecondTextThatIsNamedAndNoOther) {
    const CError error("Failed", "because", -1, CProps().add("uri", "file:/a"));
    const auto action = [&] { throw error; };
    EXPECT_LUM_ERROR_WITH_SECOND_TEXT(action(), CError, -1, "Failed", "because", {{"uri", "file:/a"}});
    const ExpectedProps props = {{"uri", "file:/a"}};
    EXPECT_FALSE(throwsErrorWithSecondText(action, typeid(CError), -1, "Failed", "", props));
    EXPECT_FALSE(throwsErrorWithSecondText(action, typeid(CError), -1, "Passed", "because", props));
    EXPECT_FALSE(throwsErrorWithSecondText(action, typeid(CError), 4, "Failed", "because", props));
    EXPECT_FALSE(throwsErrorWithSecondText(action, typeid(CIOError), -1, "Failed", "because", props));
    EXPECT_FALSE(throwsErrorWithSecondText(action, typeid(CError), -1, "Failed", "because"));
    EXPECT_FALSE(throwsErrorWithSecondText(throwNothing, typeid(CError), -1, "Failed", "because", props));
}

TEST(ErrorMatchers, RefuseAFileSystemErrorWithACode) {
    const CError error("In use", String(), 7, CProps().add("uri", "file:/a"));
    const auto throwWithCode = [&] { throw CFileSystemError(CFileSystemError::Problem_Locked, error); };
    EXPECT_EQ(messageOf(throwsFileSystemError(throwWithCode, CFileSystemError::Problem_Locked, "In use",
                                              {{"uri", "file:/a"}})),
              "code is 7, expected -1; message: \"In use\"");
}

TEST(ErrorMatchers, TellWhatWasThrownInstead) {
    EXPECT_EQ(messageOf(throwsError(throwNothing, typeid(CError), -1, "x")), "threw nothing");
    EXPECT_EQ(messageOf(throwsError(throwForeign, typeid(CError), -1, "x")),
              "threw no lum::CError but: foreign");
    EXPECT_EQ(messageOf(throwsError([] { throw 5; }, typeid(CError), -1, "x")),
              "threw what is no exception of the library");
    EXPECT_NONFATAL_FAILURE(EXPECT_EQ(catchError(throwNothing), nullptr), "threw nothing");
}
