#include "Sizes.h"

#include "Errors.h"
#include "lum/Numbers.h"

#include <array>
#include <charconv>
#include <cstdio>

namespace tessel::cli {

namespace {

constexpr char unitLetters[] = "KMGTPE";

/// 0 for no unit at all, 1 for K and so on; -1 for what is no unit.
int parseUnit(const std::string& unit) {
    if (unit.empty() || unit == "B")
        return 0;
    const char letter = unit[0] >= 'a' && unit[0] <= 'z' ? static_cast<char>(unit[0] - 'a' + 'A') : unit[0];
    const std::string rest = unit.substr(1);
    if (!rest.empty() && rest != "iB" && rest != "ib")
        return -1;
    for (int i = 0; unitLetters[i] != '\0'; ++i)
        if (unitLetters[i] == letter)
            return i + 1;
    return -1;
}

} // namespace

int64 parseSize(const std::string& text, const std::string& what) {
    int64 number = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    const bool tooBig = parsed.ec == std::errc::result_out_of_range;
    const int unit = parseUnit(std::string(parsed.ptr, end));
    if ((parsed.ec != std::errc() && !tooBig) || number < 0 || text[0] == '-' || unit < 0)
        throw CUsageError(what + ": \"" + text +
                          "\" is no size; write bytes, or a number with K, M, G, T or P, such as 10M");
    int64 bytes = 0;
    if (tooBig || !tryMultiply(number, int64{1} << (10 * unit), bytes))
        throw CUsageError(what + ": \"" + text + "\" is more than a disk can have");
    return bytes;
}

std::string formatSize(int64 bytes) {
    if (bytes < 1024)
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    double value = static_cast<double>(bytes) / 1024;
    int unit = 0;
    for (; value >= 1024 && unitLetters[unit + 1] != '\0'; ++unit)
        value /= 1024;
    std::array<char, 32> text{};
    const bool whole = value == static_cast<double>(static_cast<int64>(value)) || value >= 1000;
    const int length = std::snprintf(text.data(), text.size(),
                                     whole        ? "%.0f"
                                     : value < 10 ? "%.2f"
                                                  : "%.1f",
                                     value);
    return std::string(text.data(), static_cast<std::size_t>(length)) + " " + unitLetters[unit] + "iB";
}

std::string formatSizeExactly(int64 bytes) {
    const std::string text = formatSize(bytes);
    return bytes < 1024 ? text : text + " (" + std::to_string(bytes) + " bytes)";
}

} // namespace tessel::cli
