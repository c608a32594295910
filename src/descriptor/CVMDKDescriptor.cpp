#include "tessel/CVMDKDescriptor.h"

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

P<CVMDKDescriptorEntry> tryParseNameValueLine(const String& line) {
    const int equalsSign = line.Find(L'=');
    if (equalsSign < 0)
        return nullptr;
    const String name = line.Left(equalsSign).trimmed();
    if (name.isEmpty() || name.Contains(" "))
        return nullptr;
    String value = line.Mid(equalsSign + 1).trimmed();
    const bool quoted = value.StartsWith("\"") && value.EndsWith("\"");
    if (quoted)
        value = value.Mid(1, value.getLength() - 2);
    return new CVMDKDescriptor::CNameValueEntry(name, value, quoted);
}

P<CVMDKDescriptorEntry> parseLine(const String& line) {
    if (line.StartsWith("#"))
        return new CVMDKDescriptor::CGenericEntry(line);
    if (P<CVMDKDescriptorEntry> entry = tryParseNameValueLine(line))
        return entry;
    if (P<CVMDKExtentInfo> extent = CVMDKExtentInfo::tryParseDescriptorLine(line))
        return extent;
    return new CVMDKDescriptor::CGenericEntry(line);
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

} // namespace

CVMDKDescriptor::CNameValueEntry::CNameValueEntry(const String& name, const String& value, bool quoted)
    : m_name(name), m_value(value), m_quoted(quoted) {}

String CVMDKDescriptor::CNameValueEntry::toString() const {
    const String separator = m_name.StartsWith("ddb.") ? " = " : "=";
    const String quote = m_quoted ? "\"" : "";
    return m_name + separator + quote + m_value + quote;
}

P<CVMDKDescriptorEntry> CVMDKDescriptor::CNameValueEntry::cloneDescriptorEntry() const {
    return new CNameValueEntry(m_name, m_value, m_quoted);
}

CVMDKDescriptor::CGenericEntry::CGenericEntry(const String& line) : m_line(line) {}

String CVMDKDescriptor::CGenericEntry::toString() const {
    return m_line;
}

P<CVMDKDescriptorEntry> CVMDKDescriptor::CGenericEntry::cloneDescriptorEntry() const {
    return new CGenericEntry(m_line);
}

CVMDKDescriptor::CVMDKDescriptor() = default;

CVMDKDescriptor::CVMDKDescriptor(const TBuffer<unsigned char>& data) {
    const unsigned char* const begin = data.getData();
    const int64 length = std::find(begin, begin + data.getUsed(), 0) - begin;
    const auto* const text = reinterpret_cast<const char*>(begin);
    const auto latin1 = [&] { return String(text, static_cast<int>(length)); };

    // The encoding stands in the text itself, in ASCII: Latin-1 is enough to find it.
    parse(latin1());
    String encoding;
    tryGetValue("encoding", encoding);
    switch (encodingByName(encoding)) {
    case Encoding::Latin1:
        return;
    case Encoding::Unknown:
        logWarning("Unknown VMDK descriptor encoding '" + encoding + "'. Using Latin-1 instead.");
        return;
    case Encoding::UTF8:
        break;
    }
    String decoded;
    try {
        decoded = String::fromUTF8(text, length);
    } catch (const CError& error) {
        logWarning(error,
                   "Ignoring VMDK descriptor decoding error (encoding: '" + encoding +
                       "'. Using Latin-1 encoding instead.",
                   "");
        return;
    }
    parse(decoded);
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

void CVMDKDescriptor::parse(const String& text) {
    m_entries.clear();
    m_headerInsertionIndex = 0;
    m_extentRunEnd = -1;
    for (int start = 0;;) {
        const int end = text.Find(L'\n', start);
        m_entries.push_back(parseLine(text.Mid(start, end < 0 ? -1 : end - start)));
        if (end < 0)
            break;
        start = end + 1;
    }
    // The line that the last line feed leaves behind.
    if (m_entries.back()->toString().isEmpty())
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
            if (setting->getName().Lower() == lowerName)
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
