#include "lum/CError.h"

#include "foundation/lum/SingleLine.h"
#include "lum/CFileSystemError.h"
#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"

namespace lum {

struct CError::Contents {
    String message;
    String secondText;
    int code;
    CProps props;
    std::unique_ptr<const CError> cause;
    std::string what;
};

CError::CError(const String& message, const String& secondText, int code, const CProps& props,
               const CError* cause)
    : m_contents(std::make_shared<const Contents>(Contents{
          message, secondText, code, props, cause ? cause->clone() : nullptr, message.toUTF8Lossy()})) {}

CError::~CError() = default;

const String& CError::getMessage() const noexcept {
    return m_contents->message;
}

const String& CError::getSecondText() const noexcept {
    return m_contents->secondText;
}

int CError::getCode() const noexcept {
    return m_contents->code;
}

const CProps& CError::getProps() const noexcept {
    return m_contents->props;
}

const CError* CError::getCause() const noexcept {
    return m_contents->cause.get();
}

const char* CError::what() const noexcept {
    return m_contents->what.c_str();
}

const char* CError::getClassName() const noexcept {
    return "CError";
}

std::unique_ptr<CError> CError::clone() const {
    return std::make_unique<CError>(*this);
}

void CError::rethrow() const {
    throw *this;
}

namespace {

const char* getProblemName(CFileSystemError::Problem problem) noexcept {
    switch (problem) {
    case CFileSystemError::Problem_NotFound:
        return "not found";
    case CFileSystemError::Problem_AlreadyExists:
        return "already exists";
    case CFileSystemError::Problem_AccessDenied:
        return "access denied";
    case CFileSystemError::Problem_Locked:
        return "locked";
    case CFileSystemError::Problem_NoSpace:
        return "no space";
    case CFileSystemError::Problem_NotSupported:
        return "not supported";
    case CFileSystemError::Problem_ReadOnlyMedium:
        return "read-only medium";
    case CFileSystemError::Problem_NotAFile:
        return "not a regular file";
    case CFileSystemError::Problem_Other:
        break;
    }
    return "other";
}

/// The texts of exceptions that are not ours have no stated encoding.
String decodeForeignText(const char* text) {
    try {
        return String::fromUTF8(text);
    } catch (const CError&) {
        return String(text);
    }
}

/// What stands in the brackets behind an error's message, as "name: value" and the like.
TArray<String> listDetails(const CError& error) {
    TArray<String> details;
    if (const auto* invalidArg = dynamic_cast<const CInvalidArgError*>(&error))
        details.push_back(L"source: " + invalidArg->getSource());
    else if (const auto* fileSystem = dynamic_cast<const CFileSystemError*>(&error))
        details.push_back(String("problem: ") + getProblemName(fileSystem->getProblem()));
    else if (dynamic_cast<const CIOError*>(&error))
        details.push_back(L"code " + toDecimal(error.getCode()));

    if (!error.getSecondText().isEmpty())
        details.push_back(L"details: " + error.getSecondText());
    for (const auto& [name, value] : error.getProps().getEntries())
        details.push_back(name + L": " + value);
    if (error.getCause())
        details.push_back(L"caused by: " + describeError(*error.getCause()));
    return details;
}

} // namespace

String describeError(const std::exception& error) {
    const auto* own = dynamic_cast<const CError*>(&error);
    if (!own)
        return toSingleLine(decodeForeignText(error.what()));

    String line = own->getMessage();
    if (line.isEmpty())
        line = own->getClassName();
    const char* separator = " (";
    for (const String& detail : listDetails(*own)) {
        line += separator;
        line += detail;
        separator = "; ";
    }
    if (separator[0] == ';')
        line += L')';
    return toSingleLine(line);
}

} // namespace lum
