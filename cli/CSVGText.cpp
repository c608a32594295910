#include "CSVGText.h"

#include "Errors.h"

namespace tessel::cli {

namespace {

std::string attribute(const char* name, const std::string& value) {
    return std::string(" ") + name + "=\"" + value + "\"";
}

std::string attribute(const char* name, int tenths) {
    return attribute(name, CSVGText::formatLength(tenths));
}

} // namespace

CSVGText::CSVGText(int width, int height, const std::string& title, const std::string& description,
                   const std::string& style) {
    const std::string w = formatLength(width);
    const std::string h = formatLength(height);
    m_text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
             "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" +
             w + "\" height=\"" + h + "\" viewBox=\"0 0 " + w + " " + h +
             "\" role=\"img\">\n"
             "<title>" +
             escape(title) + "</title>\n<desc>" + escape(description) + "</desc>\n<style>" + style +
             "</style>\n";
}

void CSVGText::addRectangle(int x, int y, int width, int height, int radius, const std::string& classes,
                            const std::string& tip) {
    m_text += "<rect" + attribute("x", x) + attribute("y", y) + attribute("width", width) +
              attribute("height", height);
    if (radius > 0)
        m_text += attribute("rx", radius);
    m_text += attribute("class", classes);
    m_text += tip.empty() ? "/>\n" : "><title>" + escape(tip) + "</title></rect>\n";
}

void CSVGText::addText(int x, int y, const std::string& classes, const std::string& text) {
    m_text += "<text" + attribute("x", x) + attribute("y", y) + attribute("class", classes) + ">" +
              escape(text) + "</text>\n";
}

std::string CSVGText::formatLength(int tenths) {
    std::string text = std::to_string(tenths / 10);
    if (tenths % 10 != 0)
        text += "." + std::to_string(tenths % 10);
    return text;
}

std::string CSVGText::escape(const std::string& text) {
    if (text.empty())
        return text;
    std::string escaped;
    for (const char c : toHarmlessLine(text)) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

} // namespace tessel::cli
