#include "sigil/CDigestType_SHA256.h"

#include "foundation/sigil/ISHA256Engine.h"
#include "lum/CInvalidArgError.h"

#include <array>

namespace sigil {

using lum::CError;
using lum::CInvalidArgError;

namespace {

class CDigest_SHA256 : public lum::CBase, public IDigest {
public:
    void update(const void* data, int size) override {
        static constexpr const char* method = "CDigest_SHA256::update";
        if (m_finished)
            throw CError("Internal error: bytes added to a digest that is finished.");
        if (size < 0)
            throw CInvalidArgError(method, "size must not be negative.", lum::CProps().add("size", size));
        if (!data && size > 0)
            throw CInvalidArgError(method, "data must not be NULL.");
        if (size > 0)
            m_engine->update(data, static_cast<std::size_t>(size));
    }

    void finish() override {
        if (m_finished)
            return;
        m_engine->finish(m_bytes.data());
        m_finished = true;
    }

    int getSizeBytes() const override { return static_cast<int>(m_bytes.size()); }

    const unsigned char* getBytes() const override {
        if (!m_finished)
            throw CError("Internal error: result taken from a digest that is not finished.");
        return m_bytes.data();
    }

private:
    std::unique_ptr<ISHA256Engine> m_engine = createSHA256Engine();
    std::array<unsigned char, ISHA256Engine::digestSize> m_bytes{};
    bool m_finished = false;
};

} // namespace

lum::P<IDigest> CDigestType_SHA256::createDigest() const {
    return lum::P<IDigest>(new CDigest_SHA256);
}

} // namespace sigil
