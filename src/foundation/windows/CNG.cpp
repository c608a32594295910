#include "foundation/windows/CNG.h"

#include "foundation/windows/NTStatus.h"
#include "lum/CError.h"

namespace sigil {

void checkCNG(NTSTATUS status, const char* function) {
    if (!BCRYPT_SUCCESS(status))
        throw lum::CError("The cryptographic engine failed.", lum::describeNTStatus(status), -1,
                          lum::CProps().add("function", function));
}

CNGAlgorithm openCNGAlgorithm(const wchar_t* name, ULONG flags) {
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    checkCNG(::BCryptOpenAlgorithmProvider(&algorithm, name, nullptr, flags), "BCryptOpenAlgorithmProvider");
    return CNGAlgorithm(algorithm);
}

} // namespace sigil
