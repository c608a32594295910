#pragma once

#include "Printing.h"
#include "lum/CFileSystemError.h"
#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <typeinfo>

/// Passes when `statement` throws an error of exactly this class with this code, this message, no second
/// text, and these parameters, in this order and no others:
///
///   EXPECT_LUM_ERROR(stream->read(buffer, 8), CIOError, 4, "Unexpected end of file.",
///                    {{"uri", uri.toString(true)}, {"position", "5"}, {"bytesToRead", "8"}});
///
/// Without the list the error may have no parameters. Texts are Strings, or wide or Latin-1 literals.
/// A statement that holds commas outside of parentheses goes in parentheses.
#define EXPECT_LUM_ERROR(statement, Class, code, message, ...)                                               \
    EXPECT_TRUE(::tessel::test::throwsError([&] { statement; }, typeid(Class), code,                         \
                                            message __VA_OPT__(, ) __VA_ARGS__))

/// The same for one of the few errors that have a second text, which stands behind the message.
#define EXPECT_LUM_ERROR_WITH_SECOND_TEXT(statement, Class, code, message, secondText, ...)                  \
    EXPECT_TRUE(::tessel::test::throwsErrorWithSecondText([&] { statement; }, typeid(Class), code, message,  \
                                                          secondText __VA_OPT__(, ) __VA_ARGS__))

/// The same for a CFileSystemError, which is told by its problem: the code is -1.
#define EXPECT_FILE_SYSTEM_ERROR(statement, problem, message, ...)                                           \
    EXPECT_TRUE(::tessel::test::throwsFileSystemError([&] { statement; }, problem,                           \
                                                      message __VA_OPT__(, ) __VA_ARGS__))

/// The same for a CInvalidArgError, which names its source; the code is -1.
#define EXPECT_INVALID_ARG_ERROR(statement, source, message, ...)                                            \
    EXPECT_TRUE(::tessel::test::throwsInvalidArgError([&] { statement; }, source,                            \
                                                      message __VA_OPT__(, ) __VA_ARGS__))

namespace tessel::test {

using ExpectedProps = std::initializer_list<lum::CProps::Entry>;

/// The error that `action` throws, for what the macros do not look at (the cause, say). Null, with a
/// failure of the test, when it throws none or something else.
std::unique_ptr<lum::CError> catchError(const std::function<void()>& action);

/// True when `error` is as described; what differs is in the result's message.
::testing::AssertionResult matchesError(const lum::CError& error, const std::type_info& type, int code,
                                        const lum::String& message, ExpectedProps props = {});

::testing::AssertionResult throwsError(const std::function<void()>& action, const std::type_info& type,
                                       int code, const lum::String& message, ExpectedProps props = {});
::testing::AssertionResult throwsErrorWithSecondText(const std::function<void()>& action,
                                                     const std::type_info& type, int code,
                                                     const lum::String& message,
                                                     const lum::String& secondText, ExpectedProps props = {});
::testing::AssertionResult throwsFileSystemError(const std::function<void()>& action,
                                                 lum::CFileSystemError::Problem problem,
                                                 const lum::String& message, ExpectedProps props = {});
::testing::AssertionResult throwsInvalidArgError(const std::function<void()>& action,
                                                 const lum::String& source, const lum::String& message,
                                                 ExpectedProps props = {});

} // namespace tessel::test
