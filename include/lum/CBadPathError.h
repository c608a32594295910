#pragma once

#include "lum/CError.h"

namespace lum {

/// Text that is no path of its kind. The message is "Invalid path: " and the text; the parameters are
/// "path" and "reason".
class TESSEL_EXPORT CBadPathError : public CError {
public:
    /// `path`: the text; `reason`: why it is none, for people.
    CBadPathError(const String& path, const String& reason);
    ~CBadPathError() override;

    const char* getClassName() const noexcept override;
    std::unique_ptr<CError> clone() const override;
    [[noreturn]] void rethrow() const override;
};

} // namespace lum
