#pragma once

#include <string>

namespace tessel::cli {

/// The text of an SVG image, element by element. Lengths are in tenths of a pixel of the picture, so that no
/// fraction depends on how the system writes numbers.
class CSVGText {
public:
    /// What the drawing tells those who cannot see it stands in `title` and `description`.
    CSVGText(int width, int height, const std::string& title, const std::string& description,
             const std::string& style);

    /// A rectangle of a class, with the text that is shown for it when pointed at, or none.
    void addRectangle(int x, int y, int width, int height, int radius, const std::string& classes,
                      const std::string& tip = "");
    /// Text on the base line `y`; `classes` say where `x` is in it.
    void addText(int x, int y, const std::string& classes, const std::string& text);
    /// What no other method makes, as it is.
    void addRaw(const std::string& element) { m_text += element; }

    std::string finish() const { return m_text + "</svg>\n"; }

    /// 125: "12.5".
    static std::string formatLength(int tenths);
    /// A text as it may stand between and in tags, whatever is in it.
    static std::string escape(const std::string& text);

private:
    std::string m_text;
};

} // namespace tessel::cli
