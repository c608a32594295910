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

    const String& toString() const noexcept { return m_text; }
    bool isEmpty() const noexcept { return m_text.isEmpty(); }
    bool isAbsolute() const noexcept { return Traits::isAbsolute(m_text); }

    friend bool operator==(const TPathImpl&, const TPathImpl&) = default;

private:
    String m_text;
};

using CWindowsPath = TPathImpl<CWindowsPathTraits>;
using CUnixPath = TPathImpl<CUnixPathTraits>;

} // namespace lum
