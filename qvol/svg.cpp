#include "qvol/svg.h"

#include "qvol/names.h"

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr const char *REPLACEMENT_TEXT = "\xEF\xBF\xBD"; // U+FFFD

std::string escaped_ascii(char letter) {
    switch (letter) {
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '&':
        return "&amp;";
    case '"':
        return "&quot;";
    case '\'':
        return "&#39;";
    case '\n':
        return "\n";
    default:
        return static_cast<unsigned char>(letter) < ' ' || letter == '\x7F'
                   ? REPLACEMENT_TEXT
                   : std::string(1, letter);
    }
}

// U+FFFE and U+FFFF, which XML does not allow.
bool is_noncharacter(std::string_view character) {
    return character == "\xEF\xBF\xBE" || character == "\xEF\xBF\xBF";
}

std::size_t bytes_of_character(char lead) {
    const auto byte = static_cast<unsigned char>(lead);
    return byte >= 0xF0U ? 4 : byte >= 0xE0U ? 3 : 2;
}

} // namespace

std::string xml_text(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        if (static_cast<unsigned char>(text.front()) < 0x80U) {
            result += escaped_ascii(text.front());
            text.remove_prefix(1);
            continue;
        }
        const std::string_view character = text.substr(0, bytes_of_character(text.front()));
        const bool is_text = units_of_utf8(character).has_value();
        result += is_text && !is_noncharacter(character) ? character : REPLACEMENT_TEXT;
        text.remove_prefix(is_text ? character.size() : 1);
    }
    return result;
}

std::string coordinate(double value) {
    std::string text = fmt::format("{:.2f}", value);
    text.erase(text.find_last_not_of('0') + 1);
    if (text.back() == '.') {
        text.pop_back();
    }
    return text == "-0" ? "0" : text;
}

void svg_body::finish(const char *element, std::string_view title) {
    markup_ +=
        title.empty() ? "/>\n" : fmt::format("><title>{}</title></{}>\n", xml_text(title), element);
}

void svg_body::rect(const box &at, std::string_view classes, std::string_view title,
                    double radius) {
    markup_ += fmt::format("<rect class=\"{}\" x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\"",
                           classes, coordinate(at.x), coordinate(at.y), coordinate(at.width),
                           coordinate(at.height));
    if (radius != 0) {
        markup_ += fmt::format(" rx=\"{}\"", coordinate(radius));
    }
    finish("rect", title);
}

void svg_body::text(double x, double y, std::string_view classes, std::string_view content) {
    markup_ += fmt::format("<text class=\"{}\" x=\"{}\" y=\"{}\">{}</text>\n", classes,
                           coordinate(x), coordinate(y), xml_text(content));
}

void svg_body::line(double x1, double y1, double x2, double y2, std::string_view classes) {
    markup_ += fmt::format("<line class=\"{}\" x1=\"{}\" y1=\"{}\" x2=\"{}\" y2=\"{}\"/>\n",
                           classes, coordinate(x1), coordinate(y1), coordinate(x2), coordinate(y2));
}

void svg_body::path(std::string_view data, std::string_view classes, std::string_view title) {
    markup_ += fmt::format("<path class=\"{}\" d=\"{}\"", classes, data);
    finish("path", title);
}

// An inner picture is clipped to its bounds.
void svg_body::begin_clipped(const box &inside) {
    markup_ +=
        fmt::format("<svg x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\">\n", coordinate(inside.x),
                    coordinate(inside.y), coordinate(inside.width), coordinate(inside.height));
}

void svg_body::end_clipped() {
    markup_ += "</svg>\n";
}

void svg_body::begin_group(double x, double y) {
    markup_ += fmt::format("<g transform=\"translate({} {})\">\n", coordinate(x), coordinate(y));
}

void svg_body::end_group() {
    markup_ += "</g>\n";
}

} // namespace qvol
