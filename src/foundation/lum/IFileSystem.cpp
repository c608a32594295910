#include "lum/IFileSystem.h"

namespace lum {

CURI IFileSystem::followLinks(const CURI& uri) {
    return uri.toNormalized();
}

} // namespace lum
