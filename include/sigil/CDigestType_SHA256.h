#pragma once

#include "lum/CBase.h"
#include "lum/P.h"
#include "sigil/IDigest.h"

namespace sigil {

/// Makes SHA-256 digests (FIPS 180-4), 32 bytes.
class TESSEL_EXPORT CDigestType_SHA256 : public lum::CBase {
public:
    /// Throws: lum::CError when the engine fails.
    lum::P<IDigest> createDigest() const;
};

} // namespace sigil
