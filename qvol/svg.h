// Writes SVG markup.

#pragma once

#include <string>
#include <string_view>

namespace qvol {

// A rectangle of the picture, in its units.
struct box {
    double x;
    double y;
    double width;
    double height;
};

// Text for use between tags and in attributes: escapes markup, and replaces characters that XML
// does not allow and bytes that are not UTF-8 by U+FFFD.
[[nodiscard]] std::string xml_text(std::string_view text);

// A coordinate with at most two decimals.
[[nodiscard]] std::string coordinate(double value);

// Elements, in the order in which they are added. Texts are escaped; classes are not.
class svg_body {
public:
    void rect(const box &at, std::string_view classes, std::string_view title = {},
              double radius = 0);
    void text(double x, double y, std::string_view classes, std::string_view content);
    void line(double x1, double y1, double x2, double y2, std::string_view classes);
    void path(std::string_view data, std::string_view classes, std::string_view title = {});

    // The elements up to the end of the group are moved by (x, y). With a box, only the parts
    // inside it are visible.
    void begin_group(double x, double y);
    void begin_clipped(const box &inside);
    void end_group();
    void end_clipped();

    // Adds markup without escaping.
    void raw(std::string_view markup) {
        markup_ += markup;
    }
    [[nodiscard]] const std::string &markup() const {
        return markup_;
    }

private:
    void finish(const char *element, std::string_view title);

    std::string markup_;
};

} // namespace qvol
