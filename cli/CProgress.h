#pragma once

#include "tessel/types.h"

#include <chrono>
#include <string>

namespace tessel::cli {

/// A line on the terminal that tells how far a long work is, at which rate it goes and how long it will
/// still take. Shows nothing where standard error is no terminal.
class CProgress {
public:
    /// `sizeBytes` -1 when the end is not known. `quiet`: show nothing.
    CProgress(int64 sizeBytes, bool quiet);
    /// Clears the line.
    ~CProgress();
    CProgress(const CProgress&) = delete;
    CProgress& operator=(const CProgress&) = delete;

    void advanceTo(int64 position) {
        if (m_shown)
            show(position);
    }
    /// Clears the line, for whatever else is written to the terminal; the next advance draws it anew.
    void hide();

private:
    using Clock = std::chrono::steady_clock;

    void show(int64 position);
    std::string makeLine(int64 position, double seconds) const;

    int64 m_size;
    bool m_shown;
    bool m_drawn = false;
    Clock::time_point m_start = Clock::now();
    Clock::time_point m_nextUpdate = Clock::now() + std::chrono::milliseconds(300);
};

} // namespace tessel::cli
