#pragma once

#include "lum/export.h"
#include "lum/types.h"

#include <compare>
#include <string>
#include <string_view>

namespace lum {

/// Text as wide characters: UTF-32 where wchar_t has 32 bits, UTF-16 where it has 16. Lengths and
/// positions count wide characters.
class TESSEL_EXPORT String {
public:
    String() noexcept = default;
    /// `length` bytes of Latin-1: each byte becomes the character with the same code.
    String(const char* latin1, int length);
    /// Text that ends before its first zero; null gives the empty string.
    String(const wchar_t* text);
    /// Latin-1 text that ends before its first zero; null gives the empty string.
    String(const char* latin1);
    /// Takes the text as it is, zeros included.
    explicit String(std::wstring text) noexcept : m_text(std::move(text)) {}

    /// Decodes UTF-8 (RFC 3629).
    /// Throws: CError on overlong forms, surrogates, values above 0x10FFFF and cut or stray bytes,
    /// with the parameter "position" (byte offset of the first bad sequence).
    static String fromUTF8(const void* bytes, int64 length);
    /// The same for a view.
    static String fromUTF8(std::string_view bytes);

    /// The text in UTF-8.
    /// Throws: CError when the text holds a surrogate that is no pair, or a value above 0x10FFFF, with
    /// the parameter "position" (in this text).
    std::string toUTF8() const;
    /// Like toUTF8, but puts U+FFFD in place of what cannot be encoded. For messages.
    std::string toUTF8Lossy() const;

    /// The empty string, for whoever returns by reference.
    static const String& getEmptyString() noexcept;

    /// Makes the text empty and leaves nothing of it in its memory. Copies made before stay.
    void wipe() noexcept;

    /// True for a length of 0.
    bool isEmpty() const noexcept { return m_text.empty(); }
    /// Wide characters, the ending zero not counted.
    int getLength() const noexcept { return static_cast<int>(m_text.size()); }
    /// The character at a position. Requires: 0 <= position <= the length, where the ending zero is.
    wchar_t operator[](int position) const noexcept { return m_text[static_cast<std::size_t>(position)]; }
    /// Text that ends with a zero; valid as long as this string is not changed.
    const wchar_t* getText() const noexcept { return m_text.c_str(); }
    /// The text, as long as this string is not changed.
    const std::wstring& getWideString() const noexcept { return m_text; }

    /// The first n characters, or all when there are fewer; empty for n below 1.
    String Left(int n) const;
    /// `count` characters from `start` on (-1 = to the end), cut to what there is. A `start` below 0
    /// counts as 0.
    String Mid(int start, int count = -1) const;
    /// Lower case for ASCII and Latin-1 letters; other characters stay. Independent of the locale.
    String Lower() const;
    /// Replaces every `from`, left to right without overlap, and returns how many there were. An
    /// empty `from` is found nowhere.
    int Replace(const String& from, const String& to);
    /// Removes white space (blank, tab, line feed, vertical tab, form feed, carriage return) from
    /// both ends, or from the left end.
    void trim();
    /// As trim(), at the left end only.
    void trimLeft();
    /// These two give a changed copy.
    String trimmed() const;
    /// As trimmed(), at the left end only.
    String trimmedLeft() const;

    /// True when this text begins with the other; always with the empty one. Case counts.
    bool StartsWith(const String& text) const noexcept;
    /// The same for the end.
    bool EndsWith(const String& text) const noexcept;
    /// The same for anywhere.
    bool Contains(const String& text) const noexcept { return Find(text) >= 0; }
    /// Position of the first `text` (or character) at or behind `start`; -1 when there is none.
    int Find(const String& text, int start = 0) const noexcept;
    /// The same for a single character.
    int Find(wchar_t c, int start = 0) const noexcept;
    /// Position of the last such character; -1 when there is none.
    int ReverseFind(wchar_t c) const noexcept;

    /// Adds a text at the end.
    String& operator+=(const String& text);
    /// The same for Latin-1 that ends before its first zero; null adds nothing.
    String& operator+=(const char* latin1);
    /// The same for a single character.
    String& operator+=(wchar_t c);

    /// Both texts in a row.
    friend String operator+(String a, const String& b) {
        a += b;
        return a;
    }
    /// Equal when every character is.
    friend bool operator==(const String& a, const String& b) noexcept { return a.m_text == b.m_text; }
    /// By the numbers of the characters; independent of the locale.
    friend std::strong_ordering operator<=>(const String& a, const String& b) noexcept {
        return a.m_text <=> b.m_text;
    }

private:
    std::wstring m_text;
};

} // namespace lum
