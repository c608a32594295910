#pragma once

#include "lum/CError.h"

namespace lum {

/// A file that cannot be opened, locked or deleted. Message and parameters ("uri" first) are those of
/// the error it is made from; the problem says what kind of thing went wrong. The numbers are stable.
class TESSEL_EXPORT CFileSystemError : public CError {
public:
    /// What kind of thing went wrong.
    enum Problem {
        Problem_Other = 0,
        Problem_NotFound = 1, ///< no such file, or no such folder on the way
        Problem_AlreadyExists = 2,
        Problem_AccessDenied = 3,
        Problem_Locked = 4, ///< another holder has it locked in a way that excludes this use
        Problem_NoSpace = 5,
        Problem_NotSupported = 6, ///< the operation or the URI's scheme is not supported
        Problem_ReadOnlyMedium = 7,
        Problem_NotAFile = 8, ///< a folder, a pipe or another thing that is no regular file
    };

    /// Takes over everything of `error` but its class.
    CFileSystemError(Problem problem, const CError& error);
    ~CFileSystemError() override;

    /// What kind of thing went wrong.
    Problem getProblem() const noexcept { return m_problem; }

    const char* getClassName() const noexcept override;
    std::unique_ptr<CError> clone() const override;
    [[noreturn]] void rethrow() const override;

private:
    Problem m_problem;
};

} // namespace lum
