#pragma once

namespace lum {

/// Fills `bytes` with n bytes of the operating system's entropy. May wait, right after the machine's
/// start, until there is some.
/// Throws: CError when the system gives none; what `bytes` holds is then undefined.
/// Requires: n >= 0.
void getSystemEntropy(void* bytes, int n);

} // namespace lum
