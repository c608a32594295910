#include "ErrorMatchers.h"

#include <algorithm>
#include <string>

using namespace lum;
using ::testing::AssertionFailure;
using ::testing::AssertionResult;
using ::testing::AssertionSuccess;

namespace tessel::test {

namespace {

/// What errors have that are told by something else.
constexpr int noCode = -1;

template <class Entries>
std::string describeProps(const Entries& entries) {
    std::string text = "{";
    for (const CProps::Entry& entry : entries)
        text += " " + entry.first.toUTF8Lossy() + "=\"" + entry.second.toUTF8Lossy() + "\"";
    return text + " }";
}

/// What was thrown: the error itself, or why there is none.
struct Outcome {
    std::unique_ptr<CError> error;
    std::string other;
};

Outcome run(const std::function<void()>& action) {
    try {
        action();
    } catch (const CError& error) {
        return {error.clone(), ""};
    } catch (const std::exception& error) {
        return {nullptr, std::string("threw no lum::CError but: ") + error.what()};
    } catch (...) {
        return {nullptr, "threw what is no exception of the library"};
    }
    return {nullptr, "threw nothing"};
}

AssertionResult matchesCode(const CError& error, int code) {
    if (error.getCode() != code)
        return AssertionFailure() << "code is " << error.getCode() << ", expected " << code << "; message: \""
                                  << error.getMessage().toUTF8Lossy() << "\"";
    return AssertionSuccess();
}

AssertionResult matchesMessageAndProps(const CError& error, const String& message, ExpectedProps props,
                                       const String& secondText = String()) {
    if (error.getMessage() != message)
        return AssertionFailure() << "message is \"" << error.getMessage().toUTF8Lossy() << "\", expected \""
                                  << message.toUTF8Lossy() << "\"";
    if (error.getSecondText() != secondText)
        return AssertionFailure() << "second text is \"" << error.getSecondText().toUTF8Lossy()
                                  << "\", expected \"" << secondText.toUTF8Lossy() << "\"; message: \""
                                  << error.getMessage().toUTF8Lossy() << "\"";
    const auto& entries = error.getProps().getEntries();
    if (!std::equal(entries.begin(), entries.end(), props.begin(), props.end()))
        return AssertionFailure() << "parameters are " << describeProps(entries) << ", expected "
                                  << describeProps(props) << "; message: \""
                                  << error.getMessage().toUTF8Lossy() << "\"";
    return AssertionSuccess();
}

AssertionResult matchesType(const CError& error, const std::type_info& type) {
    if (typeid(error) != type)
        return AssertionFailure() << "threw a " << typeid(error).name() << ", expected a " << type.name()
                                  << "; message: \"" << error.getMessage().toUTF8Lossy() << "\"";
    return AssertionSuccess();
}

} // namespace

std::unique_ptr<CError> catchError(const std::function<void()>& action) {
    Outcome outcome = run(action);
    if (!outcome.error)
        ADD_FAILURE() << outcome.other;
    return std::move(outcome.error);
}

AssertionResult matchesError(const CError& error, const std::type_info& type, int code, const String& message,
                             ExpectedProps props) {
    if (AssertionResult result = matchesType(error, type); !result)
        return result;
    if (AssertionResult result = matchesCode(error, code); !result)
        return result;
    return matchesMessageAndProps(error, message, props);
}

AssertionResult throwsError(const std::function<void()>& action, const std::type_info& type, int code,
                            const String& message, ExpectedProps props) {
    const Outcome outcome = run(action);
    if (!outcome.error)
        return AssertionFailure() << outcome.other;
    return matchesError(*outcome.error, type, code, message, props);
}

AssertionResult throwsErrorWithSecondText(const std::function<void()>& action, const std::type_info& type,
                                          int code, const String& message, const String& secondText,
                                          ExpectedProps props) {
    const Outcome outcome = run(action);
    if (!outcome.error)
        return AssertionFailure() << outcome.other;
    if (AssertionResult result = matchesType(*outcome.error, type); !result)
        return result;
    if (AssertionResult result = matchesCode(*outcome.error, code); !result)
        return result;
    return matchesMessageAndProps(*outcome.error, message, props, secondText);
}

AssertionResult throwsFileSystemError(const std::function<void()>& action, CFileSystemError::Problem problem,
                                      const String& message, ExpectedProps props) {
    const Outcome outcome = run(action);
    if (!outcome.error)
        return AssertionFailure() << outcome.other;
    if (AssertionResult result = matchesType(*outcome.error, typeid(CFileSystemError)); !result)
        return result;
    const auto& error = static_cast<const CFileSystemError&>(*outcome.error);
    if (error.getProblem() != problem)
        return AssertionFailure() << "problem is " << error.getProblem() << ", expected " << problem
                                  << "; message: \"" << error.getMessage().toUTF8Lossy() << "\"";
    if (AssertionResult result = matchesCode(error, noCode); !result)
        return result;
    return matchesMessageAndProps(error, message, props);
}

AssertionResult throwsInvalidArgError(const std::function<void()>& action, const String& source,
                                      const String& message, ExpectedProps props) {
    const Outcome outcome = run(action);
    if (!outcome.error)
        return AssertionFailure() << outcome.other;
    if (AssertionResult result = matchesType(*outcome.error, typeid(CInvalidArgError)); !result)
        return result;
    const auto& error = static_cast<const CInvalidArgError&>(*outcome.error);
    if (error.getSource() != source)
        return AssertionFailure() << "source is \"" << error.getSource().toUTF8Lossy() << "\", expected \""
                                  << source.toUTF8Lossy() << "\"";
    if (AssertionResult result = matchesCode(error, noCode); !result)
        return result;
    return matchesMessageAndProps(error, message, props);
}

} // namespace tessel::test
