#include "lum/CSecretText.h"

#include "foundation/lum/UTF8.h"
#include "lum/CError.h"

#include <utility>

namespace lum {

CSecretText& CSecretText::operator=(const CSecretText& other) {
    if (this == &other)
        return *this;
    String copy(other.m_text);
    std::swap(copy, m_text);
    copy.wipe();
    return *this;
}

CSecretText CSecretText::fromUTF8(const TCryptBuffer<char>& bytes) {
    CSecretText result;
    result.m_text = String::fromUTF8(bytes.getData(), bytes.getUsed());
    return result;
}

TCryptBuffer<unsigned char> CSecretText::toUTF8(const String& text) {
    const std::wstring_view wide(text.getWideString());
    TCryptBuffer<unsigned char> bytes;
    std::string one;
    for (std::size_t position = 0; position < wide.size();) {
        char32_t character = 0;
        if (!utf8::readCharacter(wide, position, character))
            throw CError("Text cannot be written as UTF-8", String(), -1, CProps().add("position", position));
        one.clear();
        utf8::appendCharacter(one, character); // four bytes at most, which the object itself holds
        bytes.append(reinterpret_cast<const unsigned char*>(one.data()), static_cast<int64>(one.size()));
    }
    wipeMemory(one.data(), one.size());
    return bytes;
}

} // namespace lum
