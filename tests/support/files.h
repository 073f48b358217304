// Scratch files.

#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <stdlib.h>

namespace testing_support {

using bytes = std::vector<std::uint8_t>;

// A new temporary directory, removed with its content.
class scratch_directory {
public:
    scratch_directory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "quorvel-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot make a scratch directory");
        }
        path_ = pattern;
    }
    scratch_directory(const scratch_directory &) = delete;
    scratch_directory &operator=(const scratch_directory &) = delete;
    ~scratch_directory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    [[nodiscard]] std::string file(std::string_view name) const {
        return (path_ / name).string();
    }

    // A sparse file of `size` bytes.
    [[nodiscard]] std::string sparse_file(std::string_view name, std::uint64_t size) const {
        const std::string path = file(name);
        std::ofstream(path, std::ios::binary).close();
        std::filesystem::resize_file(path, size);
        return path;
    }

    [[nodiscard]] std::string file_with(std::string_view name, const bytes &content) const {
        const std::string path = file(name);
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char *>(content.data()),
                   static_cast<std::streamsize>(content.size()));
        return path;
    }

private:
    std::filesystem::path path_;
};

inline bytes read_range(const std::string &path, std::uint64_t offset, std::size_t size) {
    bytes result(size);
    std::ifstream stream(path, std::ios::binary);
    stream.seekg(static_cast<std::streamoff>(offset));
    stream.read(reinterpret_cast<char *>(result.data()), static_cast<std::streamsize>(size));
    result.resize(static_cast<std::size_t>(stream.gcount()));
    return result;
}

// The open descriptors of this process.
inline std::set<int> open_descriptors() {
    std::set<int> listed;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        listed.insert(std::stoi(entry.path().filename().string()));
    }
    // The list contains the descriptor of the listing itself, which is closed by now.
    std::set<int> result;
    for (const int fd : listed) {
        if (fcntl(fd, F_GETFD) >= 0) {
            result.insert(fd);
        }
    }
    return result;
}

inline bytes read_file(const std::string &path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    return error ? bytes() : read_range(path, 0, static_cast<std::size_t>(size));
}

// Whether the file has these bytes. Reads it in parts: new memory for a whole image takes longer
// than the comparison.
inline bool has_content(const std::string &path, const bytes &expected) {
    static std::array<char, 65536> part;
    std::filebuf file;
    if (file.open(path, std::ios::binary | std::ios::in) == nullptr) {
        return false;
    }
    std::size_t done = 0;
    for (;;) {
        const auto count = static_cast<std::size_t>(file.sgetn(part.data(), part.size()));
        if (count == 0 || count > expected.size() - done ||
            std::memcmp(part.data(), &expected[done], count) != 0) {
            return count == 0 && done == expected.size();
        }
        done += count;
    }
}

} // namespace testing_support
