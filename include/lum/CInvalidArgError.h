#pragma once

#include "lum/CError.h"

namespace lum {

/// An argument that a function cannot accept. `source` names the class and method.
class TESSEL_EXPORT CInvalidArgError : public CError {
public:
    /// `source`: the class and method that was called.
    CInvalidArgError(const String& source, const String& message, const CProps& props = CProps());
    ~CInvalidArgError() override;

    /// The class and method that was called.
    const String& getSource() const noexcept { return *m_source; }

    const char* getClassName() const noexcept override;
    std::unique_ptr<CError> clone() const override;
    [[noreturn]] void rethrow() const override;

private:
    std::shared_ptr<const String> m_source; // shared by all copies
};

} // namespace lum
