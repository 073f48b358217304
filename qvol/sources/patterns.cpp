#include "qvol/sources/patterns.h"

#include "qvol/error.h"
#include "qvol/names.h"

#include <algorithm>
#include <fstream>
#include <iostream>

#include <fnmatch.h>

namespace qvol {

namespace {

std::string without_end_slashes(const std::string &text) {
    const std::size_t first = text.find_first_not_of('/');
    return first == std::string::npos ? ""
                                      : text.substr(first, text.find_last_not_of('/') - first + 1);
}

std::vector<std::string> lines_of(std::istream &from) {
    std::vector<std::string> lines;
    for (std::string line; std::getline(from, line);) {
        lines.push_back(std::move(line));
    }
    return lines;
}

std::vector<std::string> lines_of_file(const std::string &path) {
    std::ifstream file(path);
    std::vector<std::string> lines = lines_of(path == "-" ? std::cin : file);
    if (path != "-" && (!file.is_open() || file.bad())) {
        throw system_failure("read " + shown_bytes(path));
    }
    return lines;
}

} // namespace

pattern::pattern(const std::string &text)
    : text_(without_end_slashes(text)),
      has_slash_(text.starts_with('/') || text_.find('/') != std::string::npos),
      is_of_directories_(text.ends_with('/')) {
    if (text_.empty()) {
        throw usage_error("a pattern is empty");
    }
}

bool pattern::matches(const std::string &path, bool is_directory) const {
    if (is_of_directories_ && !is_directory) {
        return false;
    }
    const char *text = has_slash_ ? path.c_str() : path.c_str() + path.rfind('/') + 1;
    return fnmatch(text_.c_str(), text, has_slash_ ? FNM_PATHNAME : 0) == 0;
}

std::optional<std::string> pattern::literal() const {
    const bool is_literal =
        !is_of_directories_ && text_.find_first_of("*?[\\") == std::string::npos;
    return is_literal ? std::optional((has_slash_ ? "/" : "") + text_) : std::nullopt;
}

void pattern_list::add(const std::string &text) {
    pattern one(text);
    if (std::optional<std::string> literal = one.literal()) {
        literals_.insert(std::move(*literal));
    } else {
        patterns_.push_back(std::move(one));
    }
}

void pattern_list::add_file(const std::string &path) {
    for (const std::string &line : lines_of_file(path)) {
        if (!line.empty() && !line.starts_with('#')) {
            add(line);
        }
    }
}

bool pattern_list::matches(const std::string &path, bool is_directory) const {
    const bool is_literal =
        !literals_.empty() &&
        (literals_.contains("/" + path) || literals_.contains(path.substr(path.rfind('/') + 1)));
    return is_literal || std::any_of(patterns_.begin(), patterns_.end(), [&](const pattern &one) {
               return one.matches(path, is_directory);
           });
}

} // namespace qvol
