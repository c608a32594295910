#pragma once

#include "lum/CBadPathError.h"
#include "lum/CUnixPathTraits.h"
#include "lum/CWindowsPathTraits.h"

namespace lum {

/// A path of one kind of system, kept as it was written. A value type: copies share nothing.
template <class Traits>
class TPathImpl {
public:
    TPathImpl() = default;
    /// Throws: CBadPathError when `text` is no path of this kind.
    explicit TPathImpl(const String& text) : m_text(text) {
        const String fault = Traits::findFault(text);
        if (!fault.isEmpty())
            throw CBadPathError(text, fault);
    }

    /// The text as it was written.
    const String& toString() const noexcept { return m_text; }
    /// True for the empty path.
    bool isEmpty() const noexcept { return m_text.isEmpty(); }
    /// True when the path fixes the place without a current folder.
    bool isAbsolute() const noexcept { return Traits::isAbsolute(m_text); }

    /// Equal when the texts are, letter by letter.
    friend bool operator==(const TPathImpl&, const TPathImpl&) = default;

private:
    String m_text;
};

/// A path as Windows has them.
using CWindowsPath = TPathImpl<CWindowsPathTraits>;
/// A path as Unix has them.
using CUnixPath = TPathImpl<CUnixPathTraits>;

} // namespace lum
