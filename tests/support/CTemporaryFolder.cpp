#include "CTemporaryFolder.h"

#include <random>
#include <string>
#include <system_error>

using namespace lum;

namespace tessel::test {

CTemporaryFolder::CTemporaryFolder() {
    std::random_device random;
    do
        m_path = std::filesystem::temp_directory_path() / ("tessel-test-" + std::to_string(random()));
    while (!std::filesystem::create_directory(m_path));
}

CTemporaryFolder::~CTemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

CURI CTemporaryFolder::getURI() const {
    return nativePathToURI(String(m_path.wstring()));
}

CURI CTemporaryFolder::getURI(const char* name) const {
    return getURI() << String(name);
}

} // namespace tessel::test
