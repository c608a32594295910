#pragma once

#include "lum/String.h"

namespace lum {

/// Fills the places of a format with numbers, one `<<` each:
///
///   String name = CStringFormat("%05d") << i;
///
/// A place is "%", optionally "0" and a width up to 99, then "d" (decimal) or "x" (hexadecimal, lower
/// case); "%%" is a per cent sign. Places that get no number stay as they are, numbers without a
/// place are dropped.
class TESSEL_EXPORT CStringFormat {
public:
    /// Starts with all places open.
    explicit CStringFormat(const String& format) : m_rest(format) {}

    /// Fills the next place; what a hexadecimal one shows of a negative number are its 64 bits.
    CStringFormat& operator<<(int64 value);
    /// The text as it stands.
    operator String() const;

private:
    String m_done;
    String m_rest;
};

} // namespace lum
