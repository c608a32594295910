#include "lum/CInvalidArgError.h"

namespace lum {

CInvalidArgError::CInvalidArgError(const String& source, const String& message, const CProps& props)
    : CError(message, String(), -1, props), m_source(std::make_shared<const String>(source)) {}

CInvalidArgError::~CInvalidArgError() = default;

const char* CInvalidArgError::getClassName() const noexcept {
    return "CInvalidArgError";
}

std::unique_ptr<CError> CInvalidArgError::clone() const {
    return std::make_unique<CInvalidArgError>(*this);
}

void CInvalidArgError::rethrow() const {
    throw *this;
}

} // namespace lum
