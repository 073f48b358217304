// The files of the source tree as text.

#pragma once

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace testing_support {

inline std::string source_path(const std::string &name) {
    return std::string(QUORVEL_SOURCE_DIR) + "/" + name;
}

inline std::string source_text(const std::string &name) {
    std::ifstream stream(source_path(name));
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

inline std::vector<std::string> lines_of(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> result;
    for (std::string line; std::getline(stream, line);) {
        result.push_back(line);
    }
    return result;
}

inline std::vector<std::string> words_of(const std::string &line) {
    std::istringstream stream(line);
    return {std::istream_iterator<std::string>(stream), std::istream_iterator<std::string>()};
}

// A C source without its block comments.
inline std::string without_comments(const std::string &text) {
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t begin = text.find("/*", at);
        result += text.substr(at, begin - at);
        const std::size_t end = text.find("*/", begin);
        at = begin == std::string::npos || end == std::string::npos ? text.size() : end + 2;
    }
    return result;
}

} // namespace testing_support
