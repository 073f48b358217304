// Properties of the terminal at standard output.

#pragma once

#include <string>

namespace qvol {

struct terminal_form {
    unsigned width = 80; // columns
    bool has_colour = false;
    bool has_utf8 = false; // by the locale; without it only ASCII is safe
};

[[nodiscard]] terminal_form form_of_standard_output();

// Shortens text to at most `columns` columns by replacing its middle with `dots`. Characters of
// double width count twice.
[[nodiscard]] std::string fitted(const std::string &text, unsigned columns, const char *dots);

// The columns that UTF-8 text takes.
[[nodiscard]] unsigned columns_of(const std::string &text);

} // namespace qvol
