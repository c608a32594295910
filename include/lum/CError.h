#pragma once

#include "lum/CProps.h"

#include <exception>
#include <memory>

namespace lum {

/// Base of every error that the library throws: a message for people, a code, named values and,
/// where one error led to another, its cause.
///
/// The classes, codes and parameter names are stable; the library's own texts are part of its
/// interface as well. A CError of exactly this class with code -1 whose message begins with
/// "Internal error" tells of a wrong use or a fault of the program, not of the disk.
class TESSEL_EXPORT CError : public std::exception {
public:
    /// `cause` is copied and may be null.
    explicit CError(const String& message, const String& secondText = String(), int code = -1,
                    const CProps& props = CProps(), const CError* cause = nullptr);
    /// Copies share the contents and cannot fail.
    CError(const CError&) = default;
    /// As copying.
    CError& operator=(const CError&) = default;
    ~CError() override;

    /// For people; may be empty.
    const String& getMessage() const noexcept;
    /// For people who look closer; may be empty.
    const String& getSecondText() const noexcept;
    /// -1 where the class has no codes.
    int getCode() const noexcept;
    /// The named values, in the order in which they were added.
    const CProps& getProps() const noexcept;
    /// The error that led to this one; null when there is none.
    const CError* getCause() const noexcept;

    /// The message as UTF-8, with U+FFFD for what cannot be encoded. Valid as long as the error or a
    /// copy of it.
    const char* what() const noexcept override;

    /// The class's name without its namespace, for messages.
    virtual const char* getClassName() const noexcept;
    /// A copy of the same class.
    virtual std::unique_ptr<CError> clone() const;
    /// Throws a copy of the same class.
    [[noreturn]] virtual void rethrow() const;

private:
    struct Contents;
    // Shared by all copies: an exception may be copied when nothing else may fail any more.
    std::shared_ptr<const Contents> m_contents;
};

/// One line for people: the message (the class's name where it is empty) and in brackets what else the
/// error holds: source, problem or code where its class has one, second text, parameters and causes.
/// Line breaks become blanks, other control characters U+FFFD. Works for any exception; for one that is
/// no CError it is its what().
TESSEL_EXPORT String describeError(const std::exception& error);

} // namespace lum
