#include "lum/String.h"

#include "foundation/lum/UTF8.h"
#include "lum/CError.h"
#include "lum/TWipingAllocator.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace lum {

namespace {

constexpr const wchar_t* whiteSpace = L" \t\n\v\f\r";

wchar_t lower(wchar_t c) noexcept {
    const bool isUpper = (c >= L'A' && c <= L'Z') || (c >= 0xC0 && c <= 0xDE && c != 0xD7);
    return isUpper ? static_cast<wchar_t>(c + 0x20) : c;
}

void appendLatin1(std::wstring& text, const char* latin1, std::size_t length) {
    text.reserve(text.size() + length);
    for (std::size_t i = 0; i < length; ++i)
        text += static_cast<wchar_t>(static_cast<unsigned char>(latin1[i]));
}

int toPosition(std::wstring::size_type found) noexcept {
    return found == std::wstring::npos ? -1 : static_cast<int>(found);
}

std::size_t notBelowZero(int n) noexcept {
    return static_cast<std::size_t>(std::max(n, 0));
}

} // namespace

String::String(const char* latin1, int length) {
    appendLatin1(m_text, latin1, notBelowZero(length));
}

String::String(const wchar_t* text) {
    if (text)
        m_text = text;
}

String::String(const char* latin1) {
    *this += latin1;
}

String String::fromUTF8(const void* bytes, int64 length) {
    return fromUTF8(std::string_view(static_cast<const char*>(bytes), static_cast<std::size_t>(length)));
}

String String::fromUTF8(std::string_view bytes) {
    String result;
    result.m_text.reserve(utf8::countCharacters(bytes)); // so that no part of a secret is left on the way
    const std::size_t end = utf8::convert(bytes, result.m_text);
    if (end != bytes.size())
        throw CError("Invalid UTF-8 text", String(), -1, CProps().add("position", end));
    return result;
}

std::string String::toUTF8() const {
    std::string result;
    const std::size_t end = utf8::convert(std::wstring_view(m_text), result);
    if (end != m_text.size())
        throw CError("Text cannot be written as UTF-8", String(), -1, CProps().add("position", end));
    return result;
}

std::string String::toUTF8Lossy() const {
    std::string result;
    utf8::convertLossy(std::wstring_view(m_text), result);
    return result;
}

void String::wipe() noexcept {
    // The text may lie in the object itself, and moving leaves it there.
    m_text.resize(m_text.capacity());
    wipeMemory(m_text.data(), m_text.size() * sizeof(wchar_t));
    m_text.clear();
}

const String& String::getEmptyString() noexcept {
    static const String empty;
    return empty;
}

String String::Left(int n) const {
    return String(m_text.substr(0, notBelowZero(n)));
}

String String::Mid(int start, int count) const {
    const std::size_t from = std::min(notBelowZero(start), m_text.size());
    return String(m_text.substr(from, count < 0 ? std::wstring::npos : notBelowZero(count)));
}

String String::Lower() const {
    String result(*this);
    std::transform(m_text.begin(), m_text.end(), result.m_text.begin(), lower);
    return result;
}

int String::Replace(const String& from, const String& to) {
    if (from.isEmpty())
        return 0;
    std::wstring result;
    int count = 0;
    std::size_t done = 0;
    std::size_t found = 0;
    while ((found = m_text.find(from.m_text, done)) != std::wstring::npos) {
        result.append(m_text, done, found - done);
        result += to.m_text;
        done = found + from.m_text.size();
        ++count;
    }
    result.append(m_text, done);
    m_text = std::move(result);
    return count;
}

void String::trim() {
    trimLeft();
    m_text.erase(m_text.find_last_not_of(whiteSpace) + 1);
}

void String::trimLeft() {
    m_text.erase(0, m_text.find_first_not_of(whiteSpace));
}

String String::trimmed() const {
    String result(*this);
    result.trim();
    return result;
}

String String::trimmedLeft() const {
    String result(*this);
    result.trimLeft();
    return result;
}

bool String::StartsWith(const String& text) const noexcept {
    return m_text.starts_with(text.m_text);
}

bool String::EndsWith(const String& text) const noexcept {
    return m_text.ends_with(text.m_text);
}

int String::Find(const String& text, int start) const noexcept {
    return toPosition(m_text.find(text.m_text, notBelowZero(start)));
}

int String::Find(wchar_t c, int start) const noexcept {
    return toPosition(m_text.find(c, notBelowZero(start)));
}

int String::ReverseFind(wchar_t c) const noexcept {
    return toPosition(m_text.rfind(c));
}

String& String::operator+=(const String& text) {
    m_text += text.m_text;
    return *this;
}

String& String::operator+=(const char* latin1) {
    if (latin1)
        appendLatin1(m_text, latin1, std::strlen(latin1));
    return *this;
}

String& String::operator+=(wchar_t c) {
    m_text += c;
    return *this;
}

} // namespace lum
