#include "lum/CIOError.h"

namespace lum {

CIOError::CIOError(Code code, const String& message, const CProps& props, const CError* cause)
    : CError(message, String(), code, props, cause) {}

CIOError::~CIOError() = default;

const char* CIOError::getClassName() const noexcept {
    return "CIOError";
}

std::unique_ptr<CError> CIOError::clone() const {
    return std::make_unique<CIOError>(*this);
}

void CIOError::rethrow() const {
    throw *this;
}

} // namespace lum
