#pragma once

#include "Bytes.h"
#include "ReferenceCryptography.h"

namespace tessel::test {

/// AES-256-CBC of whole blocks without padding, to hold the library's against.
inline Bytes independentAES(bool encrypt, const Bytes& data, const unsigned char* key, const Bytes& iv) {
    const auto row = [](const Bytes& bytes) {
        return reference::ByteRow(bytes.getData(), bytes.getData() + bytes.getUsed());
    };
    const reference::ByteRow out =
        reference::aes256CBC(encrypt, row(data), reference::ByteRow(key, key + 32), row(iv));
    return Bytes(out.data(), static_cast<lum::int64>(out.size()));
}

} // namespace tessel::test
