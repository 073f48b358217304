// The library's calls on paths of any depth: each changes to the directory first. And a survey of
// the open volume.

#pragma once

#include "fat/internal.h"
#include "tests/support/files.h"
#include "tests/support/reference.h"
#include "tests/support/survey.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

// ---- paths ------------------------------------------------------------------------------------

inline std::vector<std::string> components_of(const std::string &path) {
    std::vector<std::string> result;
    std::istringstream stream(path);
    for (std::string part; std::getline(stream, part, '/');) {
        result.push_back(part);
    }
    return result;
}
inline std::string parent_of(const std::string &path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}
inline std::string leaf_of(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}
inline std::string path_in(const std::string &directory, const std::string &name) {
    return directory.empty() ? name : directory + "/" + name;
}
inline std::string numbered(const std::string &before, std::uint32_t number) {
    std::string result = before;
    result += std::to_string(number);
    return result;
}

// Random bytes, reproducible from the seed.
inline bytes arbitrary_bytes(std::size_t size, std::uint32_t seed) {
    bytes result(size);
    for (std::uint8_t &byte : result) {
        seed = seed * 1664525 + 1013904223;
        byte = static_cast<std::uint8_t>(seed >> 24);
    }
    return result;
}

// ---- calls ------------------------------------------------------------------------------------

// Makes the directory the current one. Returns 0 or the error that stopped it.
inline int go_to(const std::string &path) {
    fat_set_current(0);
    for (const std::string &part : components_of(path)) {
        const int id = fat_open_dir(part.c_str());
        if (id < 0) {
            return id;
        }
        fat_set_current(id);
        fat_close(id);
    }
    return 0;
}

// Calls a function that takes a path, from the directory that contains its last component.
inline int call_on(const std::string &path, int (*call)(const char *)) {
    const int result = go_to(parent_of(path));
    return result < 0 ? result : call(leaf_of(path).c_str());
}
inline int closed(int id) {
    if (id > 0) {
        fat_close(id);
    }
    return std::min(id, 0);
}
// Return 0 or an error.
inline int create(const std::string &path) {
    return closed(call_on(path, fat_create_file));
}
inline int make_directory(const std::string &path) {
    return closed(call_on(path, fat_mkdir));
}
inline int make_link(const std::string &target, const std::string &path) {
    const int result = go_to(parent_of(path));
    return result < 0 ? result : fat_create_symlink(target.c_str(), leaf_of(path).c_str());
}
// Returns what fat_write_file() does, or the error of opening.
inline int append_to(const std::string &path, const bytes &data) {
    const int id = call_on(path, fat_open_file);
    if (id < 0) {
        return id;
    }
    const int result = fat_write_file(id, data.data(), static_cast<std::uint32_t>(data.size()));
    fat_close(id);
    return result;
}
// The whole file of `size` bytes, or the error of opening or reading it.
inline std::pair<int, bytes> content_by_library(const std::string &path, std::uint32_t size) {
    const int id = call_on(path, fat_open_file);
    if (id < 0) {
        return {id, {}};
    }
    bytes buffer(size + 1);
    const int result = fat_read_file(id, buffer.data(), static_cast<std::uint32_t>(buffer.size()));
    fat_close(id);
    buffer.resize(static_cast<std::size_t>(std::max(result, 0)));
    return {std::min(result, 0), buffer};
}

// ---- the open volume from outside -------------------------------------------------------------

inline std::uint32_t cluster_bytes_of_open_volume() {
    return sv->sec_per_clus * sv->sector_size;
}
// Any bytes of the volume; reads whole sectors through read_sectors.
inline bytes read_bytes(std::uint64_t offset, std::size_t size) {
    const std::uint64_t first = offset / sv->sector_size;
    const std::uint64_t last = (offset + size - 1) / sv->sector_size;
    bytes sectors(static_cast<std::size_t>(last - first + 1) * sv->sector_size);
    if (read_sectors(sectors.data(), first, static_cast<std::uint32_t>(last - first + 1)) <= 0) {
        throw std::runtime_error("the volume cannot be read");
    }
    const auto begin = sectors.begin() + static_cast<std::ptrdiff_t>(offset % sv->sector_size);
    return {begin, begin + static_cast<std::ptrdiff_t>(size)};
}
// A survey of the medium itself; bypasses the entries that the library has open.
inline survey survey_of_open_volume() {
    return {areas_of_open_volume(), read_bytes};
}

} // namespace testing_support
