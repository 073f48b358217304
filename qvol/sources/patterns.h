// Patterns of the shell that select entries by their paths below the top of a source.
//
// A pattern without a slash matches the name of an entry at any depth. One with a slash matches the
// whole path from the top on; "*" and "?" do not match a slash there. A slash at the end restricts
// a pattern to directories.

#pragma once

#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace qvol {

class pattern {
public:
    // Throws usage_error if the text is empty.
    explicit pattern(const std::string &text);

    // `path`: components joined by slashes, without one at the start.
    [[nodiscard]] bool matches(const std::string &path, bool is_directory) const;

    // If it matches only its own text, for files as for directories: that text, with a slash at its
    // start if the pattern has one.
    [[nodiscard]] std::optional<std::string> literal() const;

private:
    std::string text_; // without slashes at its ends
    bool has_slash_;
    bool is_of_directories_;
};

class pattern_list {
public:
    void add(const std::string &text);
    // One pattern on each line; empty lines and lines that begin with "#" are ignored. "-":
    // standard input.
    void add_file(const std::string &path);

    [[nodiscard]] bool matches(const std::string &path, bool is_directory) const;

private:
    std::unordered_set<std::string> literals_; // found at once, however many there are
    std::vector<pattern> patterns_;            // all others
};

} // namespace qvol
