#pragma once

#include "lum/TextFunctions.h"

#include <windows.h>
#include <bcrypt.h>

namespace lum {

/// As people look it up: "0xc000000d".
inline String describeNTStatus(NTSTATUS status) {
    return "0x" + toHexString(static_cast<unsigned int>(status));
}

} // namespace lum
