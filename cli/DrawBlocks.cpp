// The picture of a disk as text.

#include "DiskPicture.h"
#include "Errors.h"
#include "Sizes.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace tessel::cli {

namespace {

/// Columns of the positions left of the grid.
constexpr int labelColumns = 10;

/// The colours of the SVG picture, as near as the 256 colours of terminals come.
constexpr int ownColour = 32;
constexpr std::array<int, shadeCount> shadeColours = {151, 73, 38, 26, 19};
constexpr std::array<int, CDiskGrid::stateCount> parentColours = {0, 214, 175, 166, 244};
constexpr int zeroColour = 240;
constexpr int metadataColour = 247;
constexpr int deadColour = 239;

constexpr std::array<const char*, 8> heights = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array<const char*, 4> densities = {"░", "▒", "▓", "█"};
constexpr char zeroMark[] = "·";
constexpr std::array<const char*, CDiskGrid::stateCount> parentMarks = {"", "1", "2", "3", "+"};

/// Which of `count` steps a part of a whole is on; the first for the smallest part.
std::size_t stepOf(int64 part, int64 whole, std::size_t count) {
    const double share = static_cast<double>(part) / static_cast<double>(whole);
    const auto step = static_cast<std::size_t>(share * static_cast<double>(count) * 0.999999);
    return std::min(step, count - 1);
}

class CTextDrawing {
public:
    CTextDrawing(const UDiskPicture& picture, int width, bool coloured)
        : m_picture(picture),
          m_coloured(coloured),
          m_columns(chooseColumns(cells().size(), widestGrid(width))) {}

    static int widestGrid(int width) {
        int columns = 16;
        while (columns < 64 && columns * 2 + labelColumns + 1 <= width)
            columns *= 2;
        return columns;
    }

    std::string draw() {
        m_text = bold(toHarmlessLine(m_picture.name)) + "\n" + toHarmlessLine(m_picture.describe()) + "\n\n";
        for (std::size_t i = 0; i < cells().size(); ++i) {
            if (i % static_cast<std::size_t>(m_columns) == 0)
                m_text += (i > 0 ? "\n" : "") + label(static_cast<int64>(i));
            addCell(cells()[i]);
        }
        m_text += "\n\n";
        drawLegend();
        drawTotals();
        return m_text;
    }

private:
    const std::vector<CDiskGrid::UCell>& cells() const { return m_picture.grid.getCells(); }
    const CDiskGrid::UCell& total() const { return m_picture.grid.getTotal(); }

    std::string colour(int number, const std::string& text) const {
        return m_coloured ? "\x1b[38;5;" + std::to_string(number) + "m" + text + "\x1b[0m" : text;
    }
    std::string bold(const std::string& text) const {
        return m_coloured ? "\x1b[1m" + text + "\x1b[0m" : text;
    }
    std::string label(int64 index) const {
        const std::string text = formatSize(index * m_picture.grid.getCellSizeBytes());
        return std::string(labelColumns - std::min<std::size_t>(text.size(), labelColumns), ' ') + text + " ";
    }
    std::string indent() const { return std::string(labelColumns + 1, ' '); }

    /// The state that most of a cell is in, among those that are stored.
    static std::size_t mainState(const CDiskGrid::UCell& cell) {
        return static_cast<std::size_t>(std::max_element(cell.bytes.begin(), cell.bytes.end()) -
                                        cell.bytes.begin());
    }

    int colourOf(std::size_t state, const CDiskGrid::UCell& cell) const {
        if (state > 0)
            return parentColours[state];
        return m_picture.isCompressed ? shadeColours[static_cast<std::size_t>(shadeOf(cell))] : ownColour;
    }

    void addCell(const CDiskGrid::UCell& cell) {
        const int64 written = cell.getWritten();
        const std::size_t state = mainState(cell);
        if (written == 0)
            m_text += colour(zeroColour, zeroMark);
        else if (m_coloured)
            m_text += colour(colourOf(state, cell), heights[stepOf(written, cell.sizeBytes, heights.size())]);
        else if (state > 0)
            m_text += parentMarks[state];
        else
            m_text += densities[stepOf(m_picture.isCompressed ? cell.storedBytes : cell.bytes[0],
                                       cell.sizeBytes, densities.size())];
    }

    void drawLegend() {
        m_text += indent();
        m_text += "One place is " + formatSize(m_picture.grid.getCellSizeBytes()) + " of the disk.\n";
        if (total().bytes[0] > 0)
            m_text += indent() + legendOfOwn() + "\n";
        for (std::size_t state = 1; state < CDiskGrid::stateCount; ++state)
            if (total().bytes[state] > 0)
                m_text += indent() + colour(parentColours[state], m_coloured ? "█" : parentMarks[state]) +
                          " in " + toHarmlessLine(m_picture.nameOfState(static_cast<int>(state))) + "\n";
        if (total().getWritten() < total().sizeBytes)
            m_text += indent() + colour(zeroColour, zeroMark) + " stored nowhere: zeros\n";
        m_text += "\n";
    }

    std::string legendOfOwn() const {
        if (!m_coloured)
            return m_picture.isCompressed
                       ? "░▒▓█ stored here, taking up to 25, 50, 75 % and more of the place in the file"
                       : "░▒▓█ stored here, up to 25, 50, 75 % and more of the place";
        if (!m_picture.isCompressed)
            return colour(ownColour, "▁▄█") + " stored here, higher where more is";
        std::string text;
        for (int shade = 0; shade < shadeCount; ++shade)
            text += colour(shadeColours[static_cast<std::size_t>(shade)], "█");
        return text + " stored here, compressed to 20, 40, 60, 80 % of its size and more";
    }

    void drawTotals() {
        struct UPart {
            int colour;
            const char* mark;
            std::string name;
            int64 bytes;
        };
        const auto drawRow = [&](const std::string& name, const std::vector<UPart>& parts) {
            int64 whole = 0;
            for (const UPart& part : parts)
                whole += part.bytes;
            std::string text;
            for (const UPart& part : parts)
                if (part.bytes > 0)
                    text += (text.empty() ? "" : ", ") + part.name + " " + formatSize(part.bytes) + " (" +
                            formatShare(part.bytes, whole) + ")";
            const std::string head = name + " ";
            m_text +=
                std::string(labelColumns + 1 - std::min<std::size_t>(head.size(), labelColumns + 1), ' ') +
                head + formatSize(whole) + (text.empty() ? "" : ": " + text) + "\n";
            if (m_coloured && whole > 0)
                drawBar(parts, whole);
        };
        drawRow("disk", {{ownColour, "", "stored here", total().bytes[0]},
                         {parentColours[1], "", "in parents", total().getWritten() - total().bytes[0]},
                         {zeroColour, "", "zeros", total().sizeBytes - total().getWritten()}});
        drawRow("files", {{ownColour, "", "grains", m_picture.grainsInFileBytes},
                          {metadataColour, "", "metadata", m_picture.metadataBytes},
                          {deadColour, "", "dead space", m_picture.deadSpaceBytes}});
    }

    template <class Parts>
    void drawBar(const Parts& parts, int64 whole) {
        const int columns = m_columns;
        int64 done = 0;
        int drawn = 0;
        m_text += indent();
        for (const auto& part : parts) {
            done += part.bytes;
            const auto end = static_cast<int>(
                std::lround(static_cast<double>(done) / static_cast<double>(whole) * columns));
            std::string blocks;
            for (; drawn < end; ++drawn)
                blocks += "▄";
            if (!blocks.empty())
                m_text += colour(part.colour, blocks);
        }
        m_text += "\n";
    }

    const UDiskPicture& m_picture;
    bool m_coloured;
    int m_columns;
    std::string m_text;
};

} // namespace

int mostBlockCells(int width) {
    return CTextDrawing::widestGrid(width) * 16;
}

std::string drawBlocks(const UDiskPicture& picture, int width, bool coloured) {
    return CTextDrawing(picture, width, coloured).draw();
}

} // namespace tessel::cli
