#include "CProgress.h"

#include "Sizes.h"
#include "platform.h"

#include <algorithm>
#include <cmath>

namespace tessel::cli {

namespace {

constexpr std::chrono::milliseconds updateInterval(100);
constexpr int widestBar = 40;

std::string formatDuration(double seconds) {
    const auto whole = static_cast<int64>(std::llround(seconds));
    const auto twoDigits = [](int64 n) { return (n < 10 ? "0" : "") + std::to_string(n); };
    const std::string minutes = whole >= 3600
                                    ? std::to_string(whole / 3600) + ":" + twoDigits(whole / 60 % 60)
                                    : std::to_string(whole / 60);
    return minutes + ":" + twoDigits(whole % 60);
}

} // namespace

CProgress::CProgress(int64 sizeBytes, bool quiet) : m_size(sizeBytes), m_shown(!quiet && isErrorTerminal()) {}

CProgress::~CProgress() {
    hide();
}

void CProgress::hide() {
    if (m_drawn)
        writeErrorText("\r\033[K");
    m_drawn = false;
}

void CProgress::show(int64 position) {
    const Clock::time_point now = Clock::now();
    if (now < m_nextUpdate)
        return;
    m_nextUpdate = now + updateInterval;
    m_drawn = true;
    writeErrorText("\r" + makeLine(position, std::chrono::duration<double>(now - m_start).count()) +
                   "\033[K");
}

std::string CProgress::makeLine(int64 position, double seconds) const {
    const double rate = static_cast<double>(position) / std::max(seconds, 0.001);
    const std::string rateText = formatSize(static_cast<int64>(rate)) + "/s";
    if (m_size <= 0)
        return formatSize(position) + "  " + rateText;
    const double done = static_cast<double>(position) / static_cast<double>(m_size);
    const std::string left =
        rate > 0 ? "  " + formatDuration(static_cast<double>(m_size - position) / rate) + " left" : "";
    const std::string numbers = std::to_string(static_cast<int>(done * 100)) + "%  " + formatSize(position) +
                                " of " + formatSize(m_size) + "  " + rateText + left;
    const int room = getErrorWidth() - static_cast<int>(numbers.size()) - 5;
    if (room < 4)
        return numbers.substr(0, static_cast<std::size_t>(std::max(getErrorWidth() - 1, 1)));
    const int width = std::min(room, widestBar);
    const int filled = static_cast<int>(done * width);
    return "[" + std::string(static_cast<std::size_t>(filled), '#') +
           std::string(static_cast<std::size_t>(width - filled), '.') + "]  " + numbers;
}

} // namespace tessel::cli
