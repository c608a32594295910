#pragma once

#include <type_traits>

namespace sigil {

/// Throws what OpenSSL has to say about a call that failed, and clears its queue of errors.
/// Throws: lum::CError with the parameter "function".
[[noreturn]] void throwOpenSSLError(const char* function);

/// Passes on what a call of OpenSSL gave. Throws: lum::CError when that is a null pointer or not 1.
template <class Result>
Result checkOpenSSL(Result result, const char* function) {
    bool succeeded = false;
    if constexpr (std::is_pointer_v<Result>)
        succeeded = result != nullptr;
    else
        succeeded = result == 1;
    if (!succeeded)
        throwOpenSSLError(function);
    return result;
}

} // namespace sigil
