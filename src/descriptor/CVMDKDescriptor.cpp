#include "tessel/CVMDKDescriptor.h"

#include "descriptor/PackedText.h"
#include "foundation/lum/UTF8.h"
#include "lum/CInvalidArgError.h"
#include "lum/Logging.h"
#include "tessel/VMDKMarker.h"

#include <algorithm>

namespace tessel {

namespace {

template <class T>
T* entryAs(const P<CVMDKDescriptorEntry>& entry) {
    return dynamic_cast<T*>(entry.get());
}

void verifyOneLine(const char* method, const String& text) {
    static const String forbidden[] = {String("\n"), String("\r"), String(std::wstring(1, L'\0'))};
    for (const String& c : forbidden)
        if (text.Contains(c))
            throw CInvalidArgError(
                method, "A VMDK descriptor line must not hold a line feed, carriage return or NUL.",
                CProps().add("text", text));
}

struct USetting {
    std::string_view name;
    std::string_view value; ///< without its quotes
    bool quoted = false;
};

/// False for a line that is no setting.
bool trySplitSetting(std::string_view line, USetting& setting) {
    const std::size_t equalsSign = line.find('=');
    if (equalsSign == std::string_view::npos)
        return false;
    setting.name = trimPackedText(line.substr(0, equalsSign));
    if (setting.name.empty() || setting.name.find(' ') != std::string_view::npos)
        return false;
    setting.value = trimPackedText(line.substr(equalsSign + 1));
    setting.quoted = setting.value.starts_with('"') && setting.value.ends_with('"');
    if (setting.quoted)
        setting.value =
            setting.value.size() < 2 ? std::string_view() : setting.value.substr(1, setting.value.size() - 2);
    return true;
}

enum class Encoding { UTF8, Latin1, Unknown };

Encoding encodingByName(const String& name) {
    String plain = name.Lower();
    plain.Replace("_", "");
    plain.Replace("-", "");
    if (plain.isEmpty() || plain == "utf8")
        return Encoding::UTF8;
    if (plain == "latin1" || plain == "iso88591")
        return Encoding::Latin1;
    return Encoding::Unknown;
}

/// Calls `visit(line)` for each line, and for what stands behind the last line feed, until it returns false.
template <class Visit>
void forEachLine(std::string_view text, Visit visit) {
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        if (!visit(text.substr(start, end - start)))
            return;
        start = end + 1;
    }
}

String fromLatin1(std::string_view bytes) {
    return String(bytes.data(), static_cast<int>(bytes.size()));
}

/// The value of the first setting of that name; empty without one.
String findEncoding(std::string_view text) {
    constexpr std::string_view name = "encoding";
    String encoding;
    forEachLine(text, [&](std::string_view line) {
        USetting setting;
        if (line.starts_with('#') || !trySplitSetting(line, setting) || setting.name.size() != name.size() ||
            fromLatin1(setting.name).Lower() != fromLatin1(name))
            return true;
        encoding = fromLatin1(setting.value);
        return false;
    });
    return encoding;
}

void verifyUTF8(std::string_view text) {
    char32_t character = 0;
    for (std::size_t position = 0; position < text.size();)
        if (!utf8::readCharacter(text, position, character))
            throw CError("Invalid UTF-8 text", String(), -1, CProps().add("position", position));
}

} // namespace

CVMDKDescriptor::CNameValueEntry::CNameValueEntry(const String& name, const String& value, bool quoted)
    : m_quoted(quoted) {
    const std::string packedName = packText(name);
    const std::string packedValue = packText(value);
    m_nameSize = static_cast<uint32>(packedName.size());
    m_text.reserve(packedName.size() + packedValue.size());
    m_text.append(packedName).append(packedValue);
}

String CVMDKDescriptor::CNameValueEntry::getName() const {
    return unpackText(std::string_view(m_text).substr(0, m_nameSize));
}

String CVMDKDescriptor::CNameValueEntry::getValue() const {
    return unpackText(std::string_view(m_text).substr(m_nameSize));
}

void CVMDKDescriptor::CNameValueEntry::setValue(const String& value) {
    m_text.replace(m_nameSize, std::string::npos, packText(value));
}

bool CVMDKDescriptor::CNameValueEntry::hasName(const String& lowerName) const {
    // A letter and its other case take the same number of bytes, so that most names need not be unpacked.
    std::size_t size = 0;
    for (const wchar_t c : lowerName.getWideString())
        size += static_cast<char32_t>(c) < 0x80 ? 1 : 2;
    return size <= m_nameSize && getName().Lower() == lowerName;
}

String CVMDKDescriptor::CNameValueEntry::toString() const {
    const String name = getName();
    const String separator = name.StartsWith("ddb.") ? " = " : "=";
    const String quote = m_quoted ? "\"" : "";
    return name + separator + quote + getValue() + quote;
}

P<CVMDKDescriptorEntry> CVMDKDescriptor::CNameValueEntry::cloneDescriptorEntry() const {
    return new CNameValueEntry(*this);
}

CVMDKDescriptor::CGenericEntry::CGenericEntry(const String& line) : m_line(packText(line)) {}

String CVMDKDescriptor::CGenericEntry::toString() const {
    return unpackText(m_line);
}

P<CVMDKDescriptorEntry> CVMDKDescriptor::CGenericEntry::cloneDescriptorEntry() const {
    return new CGenericEntry(*this);
}

CVMDKDescriptor::CVMDKDescriptor() = default;

CVMDKDescriptor::CVMDKDescriptor(const TBuffer<unsigned char>& data) {
    const unsigned char* const begin = data.getData();
    const auto length = static_cast<std::size_t>(std::find(begin, begin + data.getUsed(), 0) - begin);
    const std::string_view text(reinterpret_cast<const char*>(begin), length);

    // The encoding stands in the text itself, in ASCII: Latin-1 is enough to find it.
    const String encoding = findEncoding(text);
    switch (encodingByName(encoding)) {
    case Encoding::Latin1:
        break;
    case Encoding::Unknown:
        logWarning("Unknown VMDK descriptor encoding '" + encoding + "'. Using Latin-1 instead.");
        break;
    case Encoding::UTF8:
        try {
            verifyUTF8(text);
            parse(text, [](std::string_view line) { return std::string(line); });
            return;
        } catch (const CError& error) {
            logWarning(error,
                       "Ignoring VMDK descriptor decoding error (encoding: '" + encoding +
                           "'. Using Latin-1 encoding instead.",
                       "");
        }
    }
    parse(text, [](std::string_view line) { return packLatin1(line); });
}

CVMDKDescriptor::CVMDKDescriptor(const CVMDKDescriptor& other) : CBase(other) {
    *this = other;
}

CVMDKDescriptor& CVMDKDescriptor::operator=(const CVMDKDescriptor& other) {
    TArray<P<CVMDKDescriptorEntry>> entries;
    entries.reserve(other.m_entries.size());
    for (const auto& entry : other.m_entries)
        entries.push_back(entry->cloneDescriptorEntry());
    m_entries = std::move(entries);
    m_headerInsertionIndex = other.m_headerInsertionIndex;
    m_extentRunEnd = other.m_extentRunEnd;
    return *this;
}

P<CVMDKDescriptorEntry> CVMDKDescriptor::parseLine(std::string&& line) {
    USetting setting;
    if (!line.starts_with('#') && trySplitSetting(line, setting)) {
        const P<CNameValueEntry> entry(new CNameValueEntry(String(), String(), setting.quoted));
        entry->m_nameSize = static_cast<uint32>(setting.name.size());
        entry->m_text.reserve(setting.name.size() + setting.value.size());
        entry->m_text.append(setting.name).append(setting.value);
        return entry;
    }
    if (!line.starts_with('#'))
        if (P<CVMDKExtentInfo> extent = CVMDKExtentInfo::tryParsePackedLine(line))
            return extent;
    const P<CGenericEntry> entry(new CGenericEntry(String()));
    entry->m_line = std::move(line);
    return entry;
}

/// `pack` makes packed text of a line. The whole text never stands in memory as wide characters, which would
/// take several times its size.
template <class Pack>
void CVMDKDescriptor::parse(std::string_view text, Pack pack) {
    m_entries.clear();
    m_entries.reserve(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
    m_headerInsertionIndex = 0;
    m_extentRunEnd = -1;
    forEachLine(text, [&](std::string_view line) {
        m_entries.push_back(parseLine(pack(line)));
        return true;
    });
    // The line that the last line feed leaves behind.
    if (text.empty() || text.ends_with('\n'))
        m_entries.pop_back();

    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        if (entryAs<CVMDKExtentInfo>(m_entries[i]))
            break;
        if (entryAs<CNameValueEntry>(m_entries[i]))
            m_headerInsertionIndex = static_cast<int>(i) + 1;
    }
}

P<CVMDKDescriptor::CNameValueEntry> CVMDKDescriptor::findValueEntry(const String& name) const {
    const String lowerName = name.Lower();
    for (const auto& entry : m_entries)
        if (auto* const setting = entryAs<CNameValueEntry>(entry))
            if (setting->hasName(lowerName))
                return setting;
    return nullptr;
}

bool CVMDKDescriptor::tryGetValue(const String& name, String& value) const {
    const P<CNameValueEntry> entry = findValueEntry(name);
    value = entry ? entry->getValue() : String();
    return static_cast<bool>(entry);
}

String CVMDKDescriptor::getValue(const String& name) const {
    String value;
    if (!tryGetValue(name, value))
        throw CError("VMDK descriptor value '" + name + "' not found.");
    return value;
}

bool CVMDKDescriptor::hasValue(const String& name) const {
    return static_cast<bool>(findValueEntry(name));
}

void CVMDKDescriptor::setValue(const String& name, const String& value, bool quoted, bool insertInHeader) {
    verifyOneLine("CVMDKDescriptor::setValue", name);
    verifyOneLine("CVMDKDescriptor::setValue", value);
    if (const P<CNameValueEntry> entry = findValueEntry(name))
        entry->setValue(value);
    else
        insertEntry(new CNameValueEntry(name, value, quoted), insertInHeader);
}

void CVMDKDescriptor::setEncodingUTF8() {
    setValue("encoding", "UTF-8", true, true);
}

bool CVMDKDescriptor::removeValue(const String& name) {
    const P<CNameValueEntry> entry = findValueEntry(name);
    if (!entry)
        return false;
    const auto place = std::find(m_entries.begin(), m_entries.end(), P<CVMDKDescriptorEntry>(entry));
    if (place - m_entries.begin() < m_headerInsertionIndex)
        --m_headerInsertionIndex;
    m_entries.erase(place);
    m_extentRunEnd = -1;
    return true;
}

void CVMDKDescriptor::insertEntry(CVMDKDescriptorEntry* entry, bool insertInHeader) {
    const P<CVMDKDescriptorEntry> kept(entry);
    if (!insertInHeader) {
        m_entries.push_back(kept);
        return;
    }
    m_entries.insert(m_entries.begin() + m_headerInsertionIndex, kept);
    ++m_headerInsertionIndex;
    m_extentRunEnd = -1;
}

int CVMDKDescriptor::findEndOfFirstExtentRun() const {
    const auto isExtent = [](const auto& entry) { return entryAs<CVMDKExtentInfo>(entry) != nullptr; };
    const auto first = std::find_if(m_entries.begin(), m_entries.end(), isExtent);
    return static_cast<int>(std::find_if_not(first, m_entries.end(), isExtent) - m_entries.begin());
}

void CVMDKDescriptor::addExtentEntry(CVMDKExtentInfo* extent) {
    const P<CVMDKExtentInfo> kept(extent);
    verifyOneLine("CVMDKDescriptor::addExtentEntry", extent->toString());
    if (m_extentRunEnd < 0)
        m_extentRunEnd = findEndOfFirstExtentRun();
    m_entries.insert(m_entries.begin() + m_extentRunEnd, kept);
    ++m_extentRunEnd;
}

void CVMDKDescriptor::getExtentEntries(TArray<P<CVMDKExtentInfo>>& extents) const {
    for (const auto& entry : m_entries)
        if (auto* const extent = entryAs<CVMDKExtentInfo>(entry))
            extents.emplace_back(extent);
}

void CVMDKDescriptor::renameExtents(const std::function<String(const CVMDKExtentInfo&)>& rename) {
    static const char* const method = "CVMDKDescriptor::renameExtents";
    TArray<P<CVMDKDescriptorEntry>> entries = m_entries;
    for (auto& entry : entries) {
        const auto* const extent = entryAs<CVMDKExtentInfo>(entry);
        if (!extent)
            continue;
        const String filename = rename(*extent);
        if (filename == extent->getFilename())
            continue;
        const P<CVMDKExtentInfo> renamed(new CVMDKExtentInfo(
            extent->getAccess(), extent->getSizeSectors(), extent->getType(), filename, extent->getOffset()));
        verifyOneLine(method, renamed->toString());
        const P<CVMDKExtentInfo> readBack = CVMDKExtentInfo::tryParseDescriptorLine(renamed->toString());
        if (!readBack || readBack->getFilename() != filename)
            throw CInvalidArgError(method, "The file reference '" + filename +
                                               "' would be read as another one in a VMDK descriptor.");
        entry = renamed;
    }
    m_entries = std::move(entries);
}

void CVMDKDescriptor::getGenericLines(TArray<String>& lines) const {
    for (const auto& entry : m_entries)
        if (entryAs<CGenericEntry>(entry))
            lines.push_back(entry->toString());
}

void CVMDKDescriptor::getSettingLines(TArray<String>& lines) const {
    for (const auto& entry : m_entries)
        if (entryAs<CNameValueEntry>(entry))
            lines.push_back(entry->toString());
}

void CVMDKDescriptor::visitOtherLines(const std::function<void(const String&)>& visit) const {
    for (const auto& entry : m_entries)
        if (!entryAs<CVMDKExtentInfo>(entry))
            visit(entry->toString());
}

void CVMDKDescriptor::addGenericLine(const String& line, bool insertInHeader) {
    verifyOneLine("CVMDKDescriptor::addGenericLine", line);
    insertEntry(new CGenericEntry(line), insertInHeader);
}

String CVMDKDescriptor::toString() const {
    String text;
    for (const auto& entry : m_entries) {
        text += entry->toString();
        text += L'\n';
    }
    return text;
}

void CVMDKDescriptor::store(IOutStream& out, int size, const TBuffer<unsigned char>& padding) {
    setEncodingUTF8();
    const std::string text = toString().toUTF8();
    const auto actual = static_cast<int64>(text.size());
    if (actual > size)
        throw CError("Internal error: actual VMDK descriptor size exceeds target size (actual size: " +
                     toDecimal(actual) + ", target size: " + toDecimal(size));
    const int pad = size - static_cast<int>(actual);
    if (pad > padding.getUsed())
        throw CError("Internal error: pad buffer too small (size: " + toDecimal(padding.getUsed()) +
                     ", needed: " + toDecimal(pad));
    out.write(text.data(), static_cast<int>(actual), nullptr);
    vmdkWritePadding(out, pad, padding);
}

} // namespace tessel
