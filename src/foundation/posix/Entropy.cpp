#include "foundation/lum/Entropy.h"

#include "lum/CError.h"

#include <sys/random.h>

#include <cerrno>
#include <system_error>

namespace lum {

void getSystemEntropy(void* bytes, int n) {
    auto* next = static_cast<unsigned char*>(bytes);
    auto missing = static_cast<std::size_t>(n);
    while (missing > 0) {
        const ssize_t got = getrandom(next, missing, 0);
        if (got > 0) {
            next += got;
            missing -= static_cast<std::size_t>(got);
        } else if (got == 0 || errno != EINTR) {
            const int code = got == 0 ? 0 : errno;
            throw CError("The system gives no random data.", std::generic_category().message(code).c_str(),
                         -1, CProps().add("errno", code));
        }
    }
}

} // namespace lum
