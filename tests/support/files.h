// Scratch files.

#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

namespace testing_support {

using bytes = std::vector<std::uint8_t>;

constexpr std::size_t HOLE = 4096; // the smallest one that file systems keep

inline bool is_zero(const std::uint8_t *data, std::size_t size) {
    return size == 0 || (data[0] == 0 && std::memcmp(data, data + 1, size - 1) == 0);
}

inline void drop_hole_at_end(bytes *content) {
    while (content->size() >= HOLE && is_zero(content->data() + content->size() - HOLE, HOLE)) {
        content->resize(content->size() - HOLE);
    }
}

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

    // A file of these bytes; parts of zeros are holes.
    [[nodiscard]] std::string file_with(std::string_view name, const bytes &content) const {
        const std::string path = file(name);
        std::ofstream stream(path, std::ios::binary);
        for (std::size_t at = 0; at < content.size(); at += HOLE) {
            const std::size_t size = std::min(HOLE, content.size() - at);
            if (!is_zero(&content[at], size)) {
                stream.seekp(static_cast<std::streamoff>(at));
                stream.write(reinterpret_cast<const char *>(&content[at]),
                             static_cast<std::streamsize>(size));
            }
        }
        stream.close();
        std::filesystem::resize_file(path, content.size());
        return path;
    }

private:
    std::filesystem::path path_;
};

// Calls visit(offset, part) for the parts of a file between `offset` and `end` that are not holes.
template <typename Visit>
void for_each_part(const std::string &path, std::uint64_t offset, std::uint64_t end,
                   const Visit &visit) {
    static std::array<std::uint8_t, 65536> part;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    while (fd >= 0 && offset < end) {
        const auto data = lseek(fd, static_cast<off_t>(offset), SEEK_DATA);
        const auto hole = data < 0 ? data : lseek(fd, data, SEEK_HOLE);
        const auto stop = std::min(static_cast<std::uint64_t>(hole), end);
        offset = data < 0 ? end : static_cast<std::uint64_t>(data);
        while (offset < stop) {
            const auto wanted =
                static_cast<std::size_t>(std::min<std::uint64_t>(part.size(), stop - offset));
            const auto count = pread(fd, part.data(), wanted, static_cast<off_t>(offset));
            if (count <= 0) {
                close(fd);
                throw std::runtime_error("cannot read " + path); // not to be taken for a hole
            }
            visit(offset, std::span(part).first(static_cast<std::size_t>(count)));
            offset += static_cast<std::size_t>(count);
        }
    }
    if (fd >= 0) {
        close(fd);
    }
}

inline std::uint64_t size_or_zero(const std::string &path) {
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    return error ? 0 : size;
}

inline bytes read_range(const std::string &path, std::uint64_t offset, std::size_t size) {
    if (std::filesystem::exists(path) && !std::filesystem::is_regular_file(path)) {
        throw std::runtime_error(path + " has no holes: not a regular file");
    }
    const std::uint64_t end = std::min<std::uint64_t>(size_or_zero(path), offset + size);
    bytes result(end > offset ? static_cast<std::size_t>(end - offset) : 0);
    for_each_part(path, offset, end, [&](std::uint64_t at, std::span<const std::uint8_t> part) {
        std::copy(part.begin(), part.end(),
                  result.begin() + static_cast<std::ptrdiff_t>(at - offset));
    });
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
    return read_range(path, 0, static_cast<std::size_t>(size_or_zero(path)));
}

// Whether the file has these bytes. Reads it in parts: new memory for a whole image takes longer
// than the comparison.
inline bool has_content(const std::string &path, const bytes &expected) {
    bool is_equal = std::filesystem::is_regular_file(path) && size_or_zero(path) == expected.size();
    std::size_t done = 0;
    const auto skip_hole = [&](std::size_t end) {
        is_equal = is_equal && is_zero(expected.data() + done, end - done);
        done = end;
    };
    const std::uint64_t end = is_equal ? expected.size() : 0;
    for_each_part(path, 0, end, [&](std::uint64_t at, std::span<const std::uint8_t> part) {
        skip_hole(static_cast<std::size_t>(at));
        is_equal = is_equal && std::memcmp(&expected[done], part.data(), part.size()) == 0;
        done += part.size();
    });
    skip_hole(expected.size());
    return is_equal;
}

} // namespace testing_support
