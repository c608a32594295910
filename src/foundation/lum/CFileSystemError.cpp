#include "lum/CFileSystemError.h"

namespace lum {

CFileSystemError::CFileSystemError(Problem problem, const CError& error)
    : CError(error), m_problem(problem) {}

CFileSystemError::~CFileSystemError() = default;

const char* CFileSystemError::getClassName() const noexcept {
    return "CFileSystemError";
}

std::unique_ptr<CError> CFileSystemError::clone() const {
    return std::make_unique<CFileSystemError>(*this);
}

void CFileSystemError::rethrow() const {
    throw *this;
}

} // namespace lum
