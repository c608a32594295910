#pragma once

#include "lum/String.h"
#include "lum/TBuffer.h"

namespace lum {

/// A text that nobody shall find in memory that was given back, such as a password: it is wiped when the
/// object goes or takes another one. Whoever copies the String itself has a copy that is not.
class TESSEL_EXPORT CSecretText {
public:
    CSecretText() noexcept = default;
    /// Copies `text`, which is the caller's to wipe.
    explicit CSecretText(const String& text) : m_text(text) {}
    /// A copy that wipes itself, too.
    CSecretText(const CSecretText& other) = default;
    /// Wipes the old text and takes a copy of the other.
    CSecretText& operator=(const CSecretText& other);
    ~CSecretText() { m_text.wipe(); }

    /// Decodes UTF-8. Throws: as String::fromUTF8; a part of the text may stay in memory then.
    static CSecretText fromUTF8(const TCryptBuffer<char>& bytes);

    /// The text, as long as this object has it.
    const String& get() const noexcept { return m_text; }
    /// True for the empty text.
    bool isEmpty() const noexcept { return m_text.isEmpty(); }

    /// A text in UTF-8. Throws: as String::toUTF8.
    static TCryptBuffer<unsigned char> toUTF8(const String& text);

private:
    String m_text;
};

} // namespace lum
