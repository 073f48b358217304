// The trees of files that benchmarks store in volumes.

#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace bench {

constexpr std::size_t SMALL_BYTES = 3000;
constexpr const char *LARGE_NAME = "large";
constexpr std::uint64_t LARGE_BYTES = std::uint64_t{1} << 30;

using namer = std::string (*)(int);

inline std::string numbered(const char *format, int number) {
    char name[64];
    std::snprintf(name, sizeof name, format, number);
    return name;
}

inline std::string similar_name(int number) {
    return numbered("photograph-%05d.jpeg", number);
}

inline std::string varied_name(int number) {
    return numbered("%05d-report.text", number * 7919 % 100000);
}

// Small files in directories, or one large file.
struct file_tree {
    int files; // 0: one large file
    int directories;
    namer name_of;
};

inline void write_file(const std::filesystem::path &path, std::uint64_t size) {
    std::string block(std::min<std::uint64_t>(size, 1 << 20), '\0');
    for (std::size_t i = 0; i < block.size(); i++) {
        block[i] = static_cast<char>(i * 131 >> 7);
    }
    std::ofstream file(path, std::ios::binary);
    for (std::uint64_t done = 0; done < size; done += block.size()) {
        file << block;
    }
}

inline void make_tree(const std::filesystem::path &top, const file_tree &tree) {
    std::filesystem::create_directories(top);
    if (tree.files == 0) {
        write_file(top / LARGE_NAME, LARGE_BYTES);
    }
    for (int number = 0; number < tree.files; number++) {
        const std::filesystem::path directory =
            top / numbered("directory %d", number % tree.directories);
        std::filesystem::create_directory(directory);
        write_file(directory / tree.name_of(number), SMALL_BYTES);
    }
}

} // namespace bench
