#include "disk/CKeySettingsEdit.h"

#include "descriptor/PackedText.h"
#include "lum/TextFunctions.h"

#include <algorithm>
#include <array>

namespace tessel {

namespace {

constexpr std::size_t sectorSize = vmdkSectorSize;
constexpr std::size_t settingCount = 3;
constexpr std::array<const char*, settingCount> settingNames = {"lumEncKeyDerivAlg", "lumEncKeyDerivSalt",
                                                                "lumEncEncKey"};

/// Where a setting stands in the text.
struct UPlace {
    std::size_t start; ///< of the name
    std::size_t value;
    std::size_t valueSize;
    std::size_t end; ///< of what stands in the line
};

std::size_t endOfText(const std::string& area) {
    return std::min(area.find('\0'), area.size());
}

bool isName(std::string_view text, std::string_view name) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return std::equal(text.begin(), text.end(), name.begin(), name.end(),
                      [&](char a, char b) { return lower(a) == lower(b); });
}

/// Every line with the setting, the one that counts first.
TArray<UPlace> findPlaces(const std::string& area, const char* name) {
    TArray<UPlace> places;
    const std::string_view text(area.data(), endOfText(area));
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        const std::string_view line = text.substr(start, end - start);
        start = end + 1;
        const std::size_t sign = line.find('=');
        if (line.starts_with('#') || sign == std::string_view::npos)
            continue;
        const std::string_view found = trimPackedText(line.substr(0, sign));
        if (!isName(found, name))
            continue;
        std::string_view value = trimPackedText(line.substr(sign + 1));
        const auto lineEnd = static_cast<std::size_t>(trimPackedText(line).end() - text.begin());
        if (value.size() >= 2 && value.starts_with('"') && value.ends_with('"'))
            value = value.substr(1, value.size() - 2);
        const auto valueStart =
            value.empty() ? lineEnd : static_cast<std::size_t>(value.begin() - text.begin());
        places.push_back(
            {static_cast<std::size_t>(found.begin() - text.begin()), valueStart, value.size(), lineEnd});
    }
    return places;
}

std::array<std::string, settingCount> textsOf(const UKeySettings& settings) {
    return {settings.derivation.toUTF8(), hexEncode(settings.salt, false).toUTF8(),
            hexEncode(settings.wrappedKey, false).toUTF8()};
}

/// True when the two differ in one sector at most.
bool isOneSector(const std::string& a, const std::string& b) {
    const auto first = std::mismatch(a.begin(), a.end(), b.begin()).first - a.begin();
    const auto behindLast = a.rend() - std::mismatch(a.rbegin(), a.rend(), b.rbegin()).first;
    return behindLast <= first || first / vmdkSectorSize == (behindLast - 1) / vmdkSectorSize;
}

std::string joinLines(const std::array<std::string, settingCount>& values) {
    std::string text;
    for (std::size_t i = 0; i < settingCount; ++i)
        text += std::string(settingNames[i]) + "=" + values[i] + "\n";
    return text;
}

[[noreturn]] void failForRoom(std::size_t needed, std::size_t size) {
    throw CError("Internal error: actual VMDK descriptor size exceeds target size (actual size: " +
                 toDecimal(needed) + ", target size: " + toDecimal(size));
}

} // namespace

CKeySettingsEdit::CKeySettingsEdit(const TBuffer<unsigned char>& area, const UKeySettings& settings) {
    m_steps.emplace_back(reinterpret_cast<const char*>(area.getData()),
                         static_cast<std::size_t>(area.getUsed()));
    plan(settings);
    verify(settings);
}

void CKeySettingsEdit::plan(const UKeySettings& settings) {
    const std::array<std::string, settingCount> values = textsOf(settings);
    std::array<std::string, settingCount> oldValues;
    std::string inPlace = m_steps.front();
    bool fits = true;
    for (std::size_t i = 0; i < settingCount; ++i) {
        const TArray<UPlace> places = findPlaces(m_steps.front(), settingNames[i]);
        if (places.empty())
            throw CError(String("VMDK descriptor value '") + settingNames[i] + "' not found.");
        const UPlace& place = places.front();
        oldValues[i] = m_steps.front().substr(place.value, place.valueSize);
        if (place.valueSize == values[i].size())
            inPlace.replace(place.value, place.valueSize, values[i]);
        else
            fits = false;
    }
    if (fits && isOneSector(m_steps.front(), inPlace))
        m_steps.push_back(inPlace);
    else
        planCopy({joinLines(oldValues), joinLines(values)});
}

/// `lines`: the old settings and the new ones.
void CKeySettingsEdit::planCopy(const TArray<std::string>& lines) {
    const auto change = [this](std::size_t position, const std::string& text) {
        m_steps.back().replace(position, text.size(), text);
    };
    TArray<UPlace> counting;
    TArray<UPlace> others;
    for (const char* const name : settingNames) {
        const TArray<UPlace> places = findPlaces(m_steps.front(), name);
        counting.push_back(places.front());
        others.insert(others.end(), places.begin() + 1, places.end());
    }

    const std::size_t size = m_steps.back().size();
    const std::size_t textEnd = endOfText(m_steps.back());
    // What stands behind the text's end would be read on where the copy reaches the medium only in part.
    if (m_steps.back().find_first_not_of('\0', textEnd) != std::string::npos) {
        m_steps.push_back(m_steps.back());
        change(textEnd, std::string(size - textEnd, '\0'));
    }

    // Lines that do not count must not begin to, and go with the step by which the copy comes.
    m_steps.push_back(m_steps.back());
    std::string filling;
    if (textEnd > 0 && m_steps.back()[textEnd - 1] != '\n')
        filling = "\n";
    const std::size_t copySize = std::max(lines[0].size(), lines[1].size());
    const std::size_t left = sectorSize - (textEnd + filling.size()) % sectorSize;
    if (left < copySize)
        filling += std::string(left - 1, '#') + "\n";
    const std::size_t copy = textEnd + filling.size();
    if (copySize > sectorSize || copy + copySize > size)
        failForRoom(copy + copySize, size);
    change(textEnd, filling + lines[0]);
    for (const UPlace& place : others)
        change(place.start, "#");

    m_steps.push_back(m_steps.back());
    for (const UPlace& place : counting)
        change(place.start, "#");

    m_steps.push_back(m_steps.back());
    change(copy, lines[1] + std::string(copySize - lines[1].size(), '\0'));

    m_steps.push_back(m_steps.back());
    counting.insert(counting.end(), others.begin(), others.end());
    for (const UPlace& place : counting)
        change(place.start, std::string(place.end - place.start, '#'));
}

/// The descriptor's own reader has the last word before anything is written.
void CKeySettingsEdit::verify(const UKeySettings& settings) const {
    const auto read = [](const std::string& area) {
        TBuffer<unsigned char> bytes(static_cast<int64>(area.size()));
        std::copy(area.begin(), area.end(), bytes.getData());
        const CVMDKDescriptor descriptor(bytes);
        return UKeySettings{descriptor.getLumEncryptionKeyDerivationAlgorithm(),
                            descriptor.getLumEncryptionKeyDerivationSalt(),
                            descriptor.getLumEncryptedEncryptionKey()};
    };
    const UKeySettings old = read(m_steps.front());
    bool isNew = false;
    for (const std::string& step : m_steps) {
        const UKeySettings found = read(step);
        const auto equals = [&found](const UKeySettings& other) {
            return found.derivation == other.derivation && found.salt == other.salt &&
                   found.wrappedKey == other.wrappedKey;
        };
        isNew = isNew || !equals(old);
        if (isNew && !equals(settings))
            throw CError("The VMDK descriptor does not let its key settings be changed.");
    }
    if (!isNew)
        throw CError("The VMDK descriptor does not let its key settings be changed.");
}

void CKeySettingsEdit::write(IIOStream& stream, int64 position) const {
    for (std::size_t step = 1; step < m_steps.size(); ++step) {
        const std::string& before = m_steps[step - 1];
        const std::string& after = m_steps[step];
        for (std::size_t start = 0; start < after.size(); start += sectorSize) {
            const std::size_t size = std::min(sectorSize, after.size() - start);
            if (before.compare(start, size, after, start, size) == 0)
                continue;
            stream.seek(position + static_cast<int64>(start));
            stream.write(after.data() + start, static_cast<int>(size), nullptr);
        }
        stream.flush();
    }
}

} // namespace tessel
