// The command line of a program as its own help describes it.

#pragma once

#include "tests/support/process.h"
#include "tests/support/source_tree.h"

#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace testing_support {

struct help_text {
    std::set<std::string> commands;
    std::set<std::string> options;                       // all spellings: "-f", "--force"
    std::map<std::string, std::set<std::string>> values; // of what takes no others
};

inline std::set<std::string> split(const std::string &text, char separator) {
    std::set<std::string> result;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        result.insert(part);
    }
    return result;
}

// "  --fat UINT:{16,32}    FAT width" and "  WHAT TEXT:{fat,cluster,file} REQUIRED".
inline void read_help_item(const std::vector<std::string> &words, help_text *help) {
    const std::set<std::string> spellings = split(words[0], ',');
    if (words[0][0] == '-') {
        help->options.insert(spellings.begin(), spellings.end());
    }
    const std::size_t brace = words.size() > 1 ? words[1].find(":{") : std::string::npos;
    if (brace != std::string::npos) {
        const std::string inside = words[1].substr(brace + 2, words[1].find('}') - brace - 2);
        help->values[words[0]] = split(inside, ',');
    }
}

// The help of qvol, or of one of its commands.
inline help_text help_of_qvol(const std::vector<std::string> &arguments) {
    help_text help;
    std::string part;
    for (const std::string &line : lines_of(run(arguments).out)) {
        const std::vector<std::string> words = words_of(line);
        const bool is_item = line.size() > 2 && line.compare(0, 2, "  ") == 0 && line[2] != ' ';
        if (!is_item) {
            part = line.empty() || line[0] == ' ' ? part : line;
        } else if (part == "Subcommands:") {
            help.commands.insert(words[0]);
        } else if (part == "Options:" || part == "Positionals:") {
            read_help_item(words, &help);
        }
    }
    EXPECT_FALSE(help.options.empty());
    return help;
}

// The options in the formatter's usage text, where one tab precedes each.
inline std::set<std::string> options_of_usage() {
    std::set<std::string> result;
    for (const std::string &line : lines_of(run({tool_path()}).out)) {
        if (line.compare(0, 2, "\t-") == 0) {
            result.insert(words_of(line)[0]);
        }
    }
    EXPECT_FALSE(result.empty());
    return result;
}

// The numbers that an option of the formatter accepts: it refuses others before it opens a target.
inline std::set<std::string> accepted_numbers(const std::string &option) {
    std::set<std::string> result;
    for (const char *number :
         {"0",  "1",   "2",   "3",   "4",    "8",    "12",   "16",   "24",    "32",
          "64", "128", "256", "512", "1024", "2048", "4096", "8192", "16384", "32768"}) {
        if (run({tool_path(), option, number}).err.empty()) {
            result.insert(number);
        }
    }
    return result;
}

} // namespace testing_support
