#pragma once

#include <windows.h>
#include <bcrypt.h>

#include <memory>

namespace sigil {

/// Throws: lum::CError with the parameter "function" when a call of the system's cryptography failed.
void checkCNG(NTSTATUS status, const char* function);

struct CNGDeleter {
    struct Algorithm {
        using pointer = BCRYPT_ALG_HANDLE;
        void operator()(BCRYPT_ALG_HANDLE algorithm) const noexcept {
            ::BCryptCloseAlgorithmProvider(algorithm, 0);
        }
    };
    struct Key {
        using pointer = BCRYPT_KEY_HANDLE;
        void operator()(BCRYPT_KEY_HANDLE key) const noexcept { ::BCryptDestroyKey(key); }
    };
    struct Hash {
        using pointer = BCRYPT_HASH_HANDLE;
        void operator()(BCRYPT_HASH_HANDLE hash) const noexcept { ::BCryptDestroyHash(hash); }
    };
};
using CNGAlgorithm = std::unique_ptr<void, CNGDeleter::Algorithm>;
/// The system wipes a key when it goes.
using CNGKey = std::unique_ptr<void, CNGDeleter::Key>;
using CNGHash = std::unique_ptr<void, CNGDeleter::Hash>;

/// Throws: lum::CError when the system does not have it.
CNGAlgorithm openCNGAlgorithm(const wchar_t* name, ULONG flags = 0);

} // namespace sigil
