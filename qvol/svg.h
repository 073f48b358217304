// Putting an SVG picture together.

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

// Text as it may stand between tags and in attributes: markup is escaped, and what XML does not
// have is replaced by U+FFFD. Bytes that are no UTF-8 are replaced too.
[[nodiscard]] std::string xml_text(std::string_view text);

// A coordinate with at most two decimals.
[[nodiscard]] std::string coordinate(double value);

// Elements, in the order in which they are added. Texts are escaped here; classes are the caller's
// own words.
class svg_body {
public:
    void rect(const box &at, std::string_view classes, std::string_view title = {},
              double radius = 0);
    void text(double x, double y, std::string_view classes, std::string_view content);
    void line(double x1, double y1, double x2, double y2, std::string_view classes);
    void path(std::string_view data, std::string_view classes, std::string_view title = {});

    // Elements up to the end of the group are moved by (x, y), and seen only inside of the box
    // where there is one.
    void begin_group(double x, double y);
    void begin_clipped(const box &inside);
    void end_group();
    void end_clipped();

    // Markup as it is.
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
