#include "tessel/CVMDKExtentInfo.h"

#include "descriptor/PackedText.h"
#include "lum/CError.h"
#include "lum/TextFunctions.h"

namespace tessel {

namespace {

/// Splits off the text before the first blank, and removes the white space behind that blank; false
/// without one.
bool takeWord(std::string_view& rest, std::string_view& word) {
    const std::size_t blank = rest.find(' ');
    if (blank == std::string_view::npos)
        return false;
    word = rest.substr(0, blank);
    rest = trimPackedTextLeft(rest.substr(blank + 1));
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
    setTexts(packText(access), packText(type), packText(filename));
}

void CVMDKExtentInfo::setTexts(std::string_view access, std::string_view type, std::string_view filename) {
    m_accessSize = static_cast<uint32>(access.size());
    m_typeSize = static_cast<uint32>(type.size());
    m_text.reserve(access.size() + type.size() + filename.size());
    m_text.append(access).append(type).append(filename);
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
    return tryParsePackedLine(packText(line));
}

P<CVMDKExtentInfo> CVMDKExtentInfo::tryParsePackedLine(std::string_view line) {
    std::string_view rest = line;
    std::string_view access;
    std::string_view size;
    std::string_view type;
    if (!takeWord(rest, access) || !takeWord(rest, size) || !takeWord(rest, type))
        return nullptr;
    if (!rest.starts_with('"'))
        return nullptr;
    const std::size_t closingQuote = rest.find('"', 1);
    if (closingQuote == std::string_view::npos)
        return nullptr;
    const std::string_view filename = rest.substr(1, closingQuote - 1);
    const String sizeText = unpackText(size);
    const String offset = unpackText(trimPackedText(rest.substr(closingQuote + 1)));
    const P<CVMDKExtentInfo> info(new CVMDKExtentInfo(String(), parseInt64(sizeText, false), String(),
                                                      String(),
                                                      offset.isEmpty() ? -1 : parseInt64(offset, false)));
    info->m_sizeKnown = isNumber(sizeText);
    info->setTexts(access, type, filename);
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
