#include "tessel/CVMDKExtentInfo.h"

#include "descriptor/PackedText.h"
#include "lum/CError.h"
#include "lum/TextFunctions.h"

namespace tessel {

namespace {

/// Splits off the text before the first blank, and removes the white space behind that blank; false
/// without one.
bool takeWord(String& rest, String& word) {
    const int blank = rest.Find(L' ');
    if (blank < 0)
        return false;
    word = rest.Left(blank);
    rest = rest.Mid(blank + 1);
    rest.trimLeft();
    return true;
}

bool isNumber(const String& text) {
    try {
        parseInt64(text, true);
        return true;
    } catch (const CError&) {
        return false;
    }
}

} // namespace

CVMDKExtentInfo::CVMDKExtentInfo(const String& access, int64 sizeSectors, const String& type,
                                 const String& filename, int64 offset)
    : m_sizeSectors(sizeSectors), m_offset(offset) {
    const std::string packedAccess = packText(access);
    const std::string packedType = packText(type);
    const std::string packedFilename = packText(filename);
    m_accessSize = static_cast<uint32>(packedAccess.size());
    m_typeSize = static_cast<uint32>(packedType.size());
    m_text.reserve(packedAccess.size() + packedType.size() + packedFilename.size());
    m_text.append(packedAccess).append(packedType).append(packedFilename);
}

String CVMDKExtentInfo::getAccess() const {
    return unpackText(std::string_view(m_text).substr(0, m_accessSize));
}

String CVMDKExtentInfo::getType() const {
    return unpackText(std::string_view(m_text).substr(m_accessSize, m_typeSize));
}

String CVMDKExtentInfo::getFilename() const {
    return unpackText(std::string_view(m_text).substr(std::size_t{m_accessSize} + m_typeSize));
}

P<CVMDKExtentInfo> CVMDKExtentInfo::tryParseDescriptorLine(const String& line) {
    String rest = line;
    String access;
    String size;
    String type;
    if (!takeWord(rest, access) || !takeWord(rest, size) || !takeWord(rest, type))
        return nullptr;
    if (!rest.StartsWith("\""))
        return nullptr;
    const int closingQuote = rest.Find(L'"', 1);
    if (closingQuote < 0)
        return nullptr;
    const String offset = rest.Mid(closingQuote + 1).trimmed();
    P<CVMDKExtentInfo> info(new CVMDKExtentInfo(access, parseInt64(size, false), type,
                                                rest.Mid(1, closingQuote - 1),
                                                offset.isEmpty() ? -1 : parseInt64(offset, false)));
    info->m_sizeKnown = isNumber(size);
    return info;
}

String CVMDKExtentInfo::toString() const {
    String line =
        getAccess() + " " + toDecimal(m_sizeSectors) + " " + getType() + " \"" + getFilename() + "\"";
    if (m_offset != -1)
        line += " " + toDecimal(m_offset);
    return line;
}

P<CVMDKDescriptorEntry> CVMDKExtentInfo::cloneDescriptorEntry() const {
    return new CVMDKExtentInfo(*this);
}

} // namespace tessel
