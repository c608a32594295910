#pragma once

#include "disk/CKeySettingsEdit.h"
#include "lum/CProps.h"
#include "sigil/ICipher.h"
#include "tessel/CVMDKDescriptor.h"

namespace tessel {

/// What an encrypted disk needs to read and write its grains.
struct UDiskKeys {
    P<sigil::ICipher> cipher;
    TCryptBuffer<unsigned char> dataKey;
    TBuffer<unsigned char> iv;
    TBuffer<unsigned char> keyHash;
};

/// Unwraps the data key that a descriptor holds. `props` (with "uri") go into every error of its own.
/// Throws: CError for an algorithm that is not known, a missing or wrong password, or values of a wrong
/// length; what the descriptor and the key derivation throw.
UDiskKeys unlockDiskKeys(const CVMDKDescriptor& descriptor, const String& password, const CProps& props);

/// Wraps a data key for `password`, by a key derived with this salt. `iv` is the disk's.
UKeySettings wrapDataKey(const TCryptBuffer<unsigned char>& dataKey, const TBuffer<unsigned char>& iv,
                         const String& password, const TBuffer<unsigned char>& salt);

/// A new salt for the key that is derived from a password.
TBuffer<unsigned char> makeKeySalt();

/// Makes a new data key and wraps it for `password`: adds the settings to the descriptor and returns the
/// key hash.
TBuffer<unsigned char> addDiskKeys(CVMDKDescriptor& descriptor, const String& password);

} // namespace tessel
