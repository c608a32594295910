#include "lum/CBadPathError.h"

namespace lum {

CBadPathError::CBadPathError(const String& path, const String& reason)
    : CError(L"Invalid path: " + path, String(), -1, CProps().add("path", path).add("reason", reason)) {}

CBadPathError::~CBadPathError() = default;

const char* CBadPathError::getClassName() const noexcept {
    return "CBadPathError";
}

std::unique_ptr<CError> CBadPathError::clone() const {
    return std::make_unique<CBadPathError>(*this);
}

void CBadPathError::rethrow() const {
    throw *this;
}

} // namespace lum
