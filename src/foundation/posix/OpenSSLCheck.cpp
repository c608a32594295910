#include "foundation/posix/OpenSSLCheck.h"

#include "lum/CError.h"

#include <openssl/err.h>

#include <array>

namespace sigil {

void throwOpenSSLError(const char* function) {
    lum::String reasons;
    while (const unsigned long code = ERR_get_error()) {
        std::array<char, 256> reason{};
        ERR_error_string_n(code, reason.data(), reason.size());
        if (!reasons.isEmpty())
            reasons += "; ";
        reasons += reason.data();
    }
    throw lum::CError("The cryptographic engine failed.", reasons, -1,
                      lum::CProps().add("function", function));
}

} // namespace sigil
