// Manual pages in mdoc, line by line.

#pragma once

#include "tests/support/source_tree.h"

#include <set>
#include <string>
#include <vector>

namespace testing_support {

struct manual_line {
    std::string section;
    std::string subsection; // empty: none
    std::string text;
};

inline bool begins_with(const std::string &text, const std::string &beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

// The lines of man/NAME that are not headings.
inline std::vector<manual_line> manual_page(const std::string &name) {
    std::vector<manual_line> result;
    std::string section;
    std::string subsection;
    for (const std::string &line : lines_of(source_text("man/" + name))) {
        if (begins_with(line, ".Sh ")) {
            section = line.substr(4);
            subsection.clear();
        } else if (begins_with(line, ".Ss ")) {
            subsection = line.substr(4);
        } else {
            result.push_back({section, subsection, line});
        }
    }
    return result;
}

// The options that list items describe: ".It Fl f , Fl -force" has "-f" and "--force".
inline std::set<std::string> described_options(const std::vector<manual_line> &page,
                                               const std::string &subsection) {
    std::set<std::string> result;
    for (const manual_line &line : page) {
        if (line.subsection != subsection || !begins_with(line.text, ".It Fl ")) {
            continue;
        }
        const std::vector<std::string> words = words_of(line.text);
        for (std::size_t i = 1; i + 1 < words.size(); i++) {
            if (words[i] == "Fl") {
                result.insert("-" + words[i + 1]);
            }
        }
    }
    return result;
}

// The commands in the literal blocks of the page's examples.
inline std::vector<std::string> literal_lines(const std::vector<manual_line> &page,
                                              const std::string &section) {
    std::vector<std::string> result;
    bool is_literal = false;
    for (const manual_line &line : page) {
        if (line.section != section) {
            continue;
        }
        if (begins_with(line.text, ".Bd -literal") || begins_with(line.text, ".Ed")) {
            is_literal = line.text != ".Ed";
        } else if (is_literal) {
            result.push_back(line.text);
        }
    }
    return result;
}

} // namespace testing_support
