// The picture of a disk as an SVG image.

#include "CSVGText.h"
#include "DiskPicture.h"
#include "Sizes.h"

#include <algorithm>

namespace tessel::cli {

namespace {

// Lengths are tenths of a pixel.
constexpr int pictureWidth = 11200;
constexpr int margin = 400;
constexpr int labelWidth = 800; ///< of the positions left of the grid
constexpr int gridWidth = pictureWidth - 2 * margin - labelWidth;
constexpr int gridLeft = margin + labelWidth;
constexpr int cellGap = 15;
constexpr int leastFill = 22; ///< what little is stored in a cell shows all the same

// The colours are those that people with any kind of colour vision tell apart (Okabe and Ito), parents in
// addition by their hatching; the shades grow evenly darker.
constexpr char style[] = R"(
text{font-family:"Inter","Segoe UI","Helvetica Neue",Arial,"DejaVu Sans",sans-serif;fill:#1f2933}
.paper{fill:#fff}.card{fill:#f4f6f8}
.title{font-size:27px;font-weight:700}.sub{font-size:14px;fill:#52606d}
.name{font-size:12px;fill:#52606d}.value{font-size:21px;font-weight:700}
.head{font-size:14px;font-weight:700}.key{font-size:13px}
.pos{font-size:11px;fill:#52606d;text-anchor:end}.end{text-anchor:end}.mid{text-anchor:middle}
.zero{fill:#e7ebef}
.own{fill:#0072b2}
.shade0{fill:#a8ddb5}.shade1{fill:#5fc0c0}.shade2{fill:#2e93c4}.shade3{fill:#1f5fa8}.shade4{fill:#0c2c6b}
.parent1{fill:#e69f00}.parent2{fill:#cc79a7}.parent3{fill:#d55e00}.parent4{fill:#6b7280}
.hatch1{fill:url(#h1)}.hatch2{fill:url(#h2)}.hatch3{fill:url(#h3)}.hatch4{fill:url(#h4)}
.meta{fill:#9aa5b1}.dead{fill:#3e4c59}
)";

constexpr char hatchings[] =
    "<defs>"
    "<pattern id='h1' width='5' height='5' patternUnits='userSpaceOnUse' patternTransform='rotate(45)'>"
    "<rect width='1.3' height='5' fill='#fff' fill-opacity='.55'/></pattern>"
    "<pattern id='h2' width='5' height='5' patternUnits='userSpaceOnUse' patternTransform='rotate(-45)'>"
    "<rect width='1.3' height='5' fill='#fff' fill-opacity='.6'/></pattern>"
    "<pattern id='h3' width='5' height='5' patternUnits='userSpaceOnUse'>"
    "<rect width='5' height='1.3' fill='#fff' fill-opacity='.55'/></pattern>"
    "<pattern id='h4' width='5' height='5' patternUnits='userSpaceOnUse'>"
    "<circle cx='2.5' cy='2.5' r='1.1' fill='#fff' fill-opacity='.6'/></pattern>"
    "</defs>\n";

/// A part of a bar, or an entry of a legend.
struct UPart {
    std::string classes;
    int hatch; ///< 0 for none
    std::string name;
    int64 bytes;
};

class CDrawing {
public:
    explicit CDrawing(const UDiskPicture& picture)
        : m_picture(picture),
          m_columns(chooseColumns(cells().size(), 64)),
          m_rows(static_cast<int>((cells().size() - 1) / static_cast<std::size_t>(m_columns)) + 1),
          m_pitch(gridWidth / m_columns),
          m_gridHeight(m_rows * m_pitch),
          m_height(getBarTop() + secondBar + 560 + margin),
          m_svg(pictureWidth, m_height, "Map of " + picture.name, picture.describe() + "; " + tellTotals(),
                style) {}

    std::string draw() {
        m_svg.addRaw(hatchings);
        m_svg.addRectangle(0, 0, pictureWidth, m_height, 0, "paper");
        drawHead();
        drawCards();
        drawGrid();
        drawLegend(gridTop + m_gridHeight + 280);
        drawBar(getBarTop(), "The disk", "as its user sees it", partsOfDisk());
        drawBar(getBarTop() + secondBar, "Its files", "without those of its parents", partsOfFiles());
        return m_svg.finish();
    }

private:
    static constexpr int gridTop = 2150;
    static constexpr int secondBar = 940; ///< below the first one

    int getBarTop() const { return gridTop + m_gridHeight + (m_picture.isCompressed ? 1400 : 980); }

    const std::vector<CDiskGrid::UCell>& cells() const { return m_picture.grid.getCells(); }
    const CDiskGrid::UCell& total() const { return m_picture.grid.getTotal(); }
    int64 parentBytes() const { return total().getWritten() - total().bytes[0]; }
    bool isState(int state) const { return total().bytes[static_cast<std::size_t>(state)] > 0; }

    int countParents() const {
        int count = 0;
        for (int state = 1; state < CDiskGrid::stateCount; ++state)
            count += isState(state) ? 1 : 0;
        return count;
    }

    /// Without the file's name, for which there is not always room.
    std::string nameBriefly(int state) const {
        const std::string name = m_picture.nameOfState(state);
        return name.substr(0, name.find(','));
    }

    std::string tellTotals() const {
        return formatSize(total().bytes[0]) + " stored here, " + formatSize(parentBytes()) +
               " in parents, files of " + formatSize(m_picture.getInFileBytes()) + ", of which " +
               formatSize(m_picture.deadSpaceBytes) + " dead space";
    }

    void drawHead() {
        m_svg.addText(margin, 640, "title", shorten(m_picture.name, 52));
        m_svg.addText(margin, 890, "sub", m_picture.describe());
    }

    void drawCards() {
        struct UCard {
            std::string name;
            std::string value;
            std::string remark;
        };
        std::vector<UCard> cards;
        const int64 size = total().sizeBytes;
        cards.push_back({"Size of the disk", formatSize(size), ""});
        cards.push_back({"Stored here", formatSize(total().bytes[0]),
                         formatShare(total().bytes[0], size) + " of the disk"});
        if (!m_picture.parents.empty())
            cards.push_back(
                {"In parents", formatSize(parentBytes()), formatShare(parentBytes(), size) + " of the disk"});
        cards.push_back({"Its files", formatSize(m_picture.getInFileBytes()), ""});
        if (m_picture.isCompressed && total().bytes[0] > 0)
            cards.push_back({"Shrunk to", formatShare(m_picture.grainsInFileBytes, total().bytes[0]),
                             "of what is stored here"});
        cards.push_back(
            {"Dead space", formatSize(m_picture.deadSpaceBytes),
             formatShare(m_picture.deadSpaceBytes, m_picture.getInFileBytes()) + " of its files"});
        constexpr int gap = 120;
        const int count = static_cast<int>(cards.size());
        const int width = (pictureWidth - 2 * margin - (count - 1) * gap) / count;
        int x = margin;
        for (const UCard& card : cards) {
            m_svg.addRectangle(x, 1080, width, 800, 60, "card");
            m_svg.addText(x + 140, 1300, "name", card.name);
            m_svg.addText(x + 140, 1570, "value", card.value);
            if (!card.remark.empty())
                m_svg.addText(x + 140, 1770, "name", card.remark);
            x += width + gap;
        }
    }

    void drawGrid() {
        const int labelEvery = m_rows > 20 ? 4 : m_rows > 10 ? 2 : 1;
        for (int row = 0; row < m_rows; row += labelEvery)
            m_svg.addText(gridLeft - 100, gridTop + row * m_pitch + m_pitch / 2 + 40, "pos",
                          formatSize(m_picture.grid.getCellSizeBytes() * m_columns * row));
        for (std::size_t i = 0; i < cells().size(); ++i) {
            const int column = static_cast<int>(i) % m_columns;
            const int row = static_cast<int>(i) / m_columns;
            drawCell(i, gridLeft + column * m_pitch, gridTop + row * m_pitch);
        }
    }

    /// What is stored stands in the cell like water in a glass: the disk's own below, its parents' above.
    void drawCell(std::size_t index, int x, int y) {
        const CDiskGrid::UCell& cell = cells()[index];
        const int side = m_pitch - cellGap;
        const int radius = side / 7;
        const std::string tip = describeCell(index);
        int left = side;
        const bool isFull = cell.getWritten() == cell.sizeBytes;
        const bool isOneState =
            std::count_if(cell.bytes.begin(), cell.bytes.end(), [](int64 bytes) { return bytes > 0; }) == 1;
        if (!isFull || !isOneState)
            m_svg.addRectangle(x, y, side, side, radius, "zero", tip);
        for (int state = 0; state < CDiskGrid::stateCount && left > 0; ++state) {
            const int64 bytes = cell.bytes[static_cast<std::size_t>(state)];
            if (bytes == 0)
                continue;
            const double share = static_cast<double>(bytes) / static_cast<double>(cell.sizeBytes);
            const int height =
                std::min(left, std::max(leastFill, static_cast<int>(share * static_cast<double>(side))));
            left -= height;
            addFilled(x, y + left, side, height, std::min(radius, height / 2),
                      {classOf(state, cell), state, tip, 0});
        }
    }

    std::string classOf(int state, const CDiskGrid::UCell& cell) const {
        if (state > 0)
            return "parent" + std::to_string(state);
        return m_picture.isCompressed ? "shade" + std::to_string(shadeOf(cell)) : "own";
    }

    void addFilled(int x, int y, int width, int height, int radius, const UPart& part) {
        m_svg.addRectangle(x, y, width, height, radius, part.classes, part.name);
        if (part.hatch > 0)
            m_svg.addRectangle(x, y, width, height, radius, "hatch" + std::to_string(part.hatch), part.name);
    }

    std::string describeCell(std::size_t index) const {
        const CDiskGrid::UCell& cell = cells()[index];
        const int64 start = static_cast<int64>(index) * m_picture.grid.getCellSizeBytes();
        std::string text = "From " + formatSize(start) + " on, " + formatSize(cell.sizeBytes) + ": ";
        if (cell.getWritten() == 0)
            return text + "nothing stored";
        const char* separator = "";
        for (int state = 0; state < CDiskGrid::stateCount; ++state) {
            const int64 bytes = cell.bytes[static_cast<std::size_t>(state)];
            if (bytes == 0)
                continue;
            text += separator + formatShare(bytes, cell.sizeBytes) + " in " + m_picture.nameOfState(state);
            if (state == 0 && m_picture.isCompressed)
                text += ", shrunk to " + formatSize(cell.storedBytes);
            separator = "; ";
        }
        return text;
    }

    void drawLegend(int y) {
        m_svg.addText(gridLeft, y, "key",
                      "One square is " + formatSize(m_picture.grid.getCellSizeBytes()) +
                          " of the disk, filled as far as it is stored.");
        y += 190;
        int x = gridLeft;
        const auto add = [&](const UPart& part, const std::string& name) {
            addFilled(x, y, 130, 130, 20, part);
            m_svg.addText(x + 190, y + 112, "key", name);
            x += 190 + 72 * static_cast<int>(countCharacters(name)) + 240;
        };
        if (m_picture.isCompressed) {
            m_svg.addText(gridLeft, y + 112, "key", "Stored here, each grain compressed to");
            int at = gridLeft + 2700;
            for (int shade = 0; shade < shadeCount; ++shade) {
                m_svg.addRectangle(at, y, 620, 130, 0, "shade" + std::to_string(shade));
                m_svg.addText(at + 620, y + 290, "name mid",
                              std::to_string((shade + 1) * 100 / shadeCount) + " %");
                at += 620;
            }
            m_svg.addText(gridLeft + 2700, y + 290, "name mid", "0 %");
            m_svg.addText(at + 120, y + 112, "key", "of its size, or more");
            y += 440;
        } else {
            add({"own", 0, "", 0}, "stored here");
        }
        for (int state = 1; state < CDiskGrid::stateCount; ++state)
            if (isState(state))
                add({"parent" + std::to_string(state), state, "", 0},
                    "in " + (countParents() > 2 ? nameBriefly(state)
                                                : shorten(m_picture.nameOfState(state), 30)));
        add({"zero", 0, "", 0}, "stored nowhere: zeros");
    }

    std::vector<UPart> partsOfDisk() const {
        std::vector<UPart> parts;
        parts.push_back({m_picture.isCompressed ? "shade3" : "own", 0, "stored here", total().bytes[0]});
        for (int state = 1; state < CDiskGrid::stateCount; ++state)
            if (isState(state))
                parts.push_back({"parent" + std::to_string(state), state, nameBriefly(state),
                                 total().bytes[static_cast<std::size_t>(state)]});
        parts.push_back({"zero", 0, "zeros", total().sizeBytes - total().getWritten()});
        return parts;
    }

    std::vector<UPart> partsOfFiles() const {
        return {{m_picture.isCompressed ? "shade3" : "own", 0, "grains", m_picture.grainsInFileBytes},
                {"meta", 0, "metadata", m_picture.metadataBytes},
                {"dead", 0, "dead space", m_picture.deadSpaceBytes}};
    }

    void drawBar(int y, const std::string& name, const std::string& remark, const std::vector<UPart>& parts) {
        constexpr int width = pictureWidth - 2 * margin;
        int64 whole = 0;
        for (const UPart& part : parts)
            whole += part.bytes;
        m_svg.addText(margin, y, "head", name + ": " + formatSize(whole));
        m_svg.addText(pictureWidth - margin, y, "name end", remark);
        int x = margin;
        int keyX = margin;
        for (std::size_t i = 0; i < parts.size(); ++i) {
            const UPart& part = parts[i];
            const double share = whole > 0 ? static_cast<double>(part.bytes) / static_cast<double>(whole) : 0;
            int partWidth = part.bytes > 0 ? std::max(30, static_cast<int>(share * width)) : 0;
            if (i + 1 == parts.size() && part.bytes > 0)
                partWidth = std::max(30, margin + width - x);
            partWidth = std::min(partWidth, margin + width - x);
            const std::string sizes = part.name + " " + formatSize(part.bytes);
            const std::string text = sizes + " (" + formatShare(part.bytes, whole) + ")";
            if (partWidth > 0)
                addFilled(x, y + 130, partWidth, 230, 0, {part.classes, part.hatch, text, 0});
            x += partWidth;
            addFilled(keyX, y + 460, 110, 110, 20, part);
            const std::string& key = parts.size() > 4 ? sizes : text; // there is room for so many
            m_svg.addText(keyX + 170, y + 560, "name", key);
            keyX += 170 + 66 * static_cast<int>(countCharacters(key)) + 200;
        }
    }

    static std::size_t countCharacters(const std::string& utf8) {
        return static_cast<std::size_t>(std::count_if(
            utf8.begin(), utf8.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
    }

    /// A text of at most so many characters, the middle left out.
    static std::string shorten(const std::string& utf8, std::size_t most) {
        if (countCharacters(utf8) <= most)
            return utf8;
        const auto isMiddle = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; };
        const std::size_t kept = most / 2;
        std::size_t headEnd = 0;
        for (std::size_t count = 0; headEnd < utf8.size(); ++headEnd)
            if (!isMiddle(utf8[headEnd]) && ++count > kept)
                break;
        std::size_t tailStart = utf8.size();
        for (std::size_t count = 0; tailStart > 0 && count < most - kept - 1;)
            if (!isMiddle(utf8[--tailStart]))
                ++count;
        return utf8.substr(0, headEnd) + "…" + utf8.substr(tailStart);
    }

    const UDiskPicture& m_picture;
    int m_columns;
    int m_rows;
    int m_pitch;
    int m_gridHeight;
    int m_height;
    CSVGText m_svg;
};

} // namespace

std::string drawSVG(const UDiskPicture& picture) {
    return CDrawing(picture).draw();
}

} // namespace tessel::cli
