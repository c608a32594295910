#include "foundation/lum/Entropy.h"

#include "foundation/windows/NTStatus.h"
#include "lum/CError.h"

namespace lum {

void getSystemEntropy(void* bytes, int n) {
    const NTSTATUS status = ::BCryptGenRandom(nullptr, static_cast<PUCHAR>(bytes), static_cast<ULONG>(n),
                                              BCRYPT_USE_SYSTEM_PREFERRED_RNG);
    if (!BCRYPT_SUCCESS(status))
        throw CError("The system gives no random data.", describeNTStatus(status), -1,
                     CProps().add("status", describeNTStatus(status)));
}

} // namespace lum
