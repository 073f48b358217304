// Paths in the volume, of any depth.
//
// A path is split at its slashes. "." and empty components are dropped, ".." drops the component
// before it; links are not followed. Each component is then looked up in its directory.

#pragma once

#include "qvol/session.h"

#include <string>
#include <string_view>
#include <vector>

namespace qvol {

// The components of a path, from the root.
using name_path = std::vector<std::u16string>;

// Throws usage_error if the path is not valid in the encoding.
[[nodiscard]] name_path parse_path(const name_codec &names, std::string_view path);

// The path for a terminal, and for JSON; "/" for the root.
[[nodiscard]] std::string shown_path(const name_codec &names, const name_path &path);
[[nodiscard]] std::string json_path(const name_path &path);

// The result of a lookup: the entry and the directory that contains it. The root has no entry.
struct resolved_path {
    name_path path;
    directory parent; // of the root: the root
    std::optional<entry> found;

    [[nodiscard]] bool is_root() const {
        return path.empty();
    }
    [[nodiscard]] bool is_directory() const {
        return is_root() || (found && found->is_directory());
    }
    // First cluster, as the constructor of directory takes it.
    [[nodiscard]] u32 start() const {
        return is_root() ? directory::ROOT : found->start();
    }
};

// Look up a path. Throw error with the first part of the path that is missing or not a directory.
// For find_path() the last component may be missing: `found` is then empty.
[[nodiscard]] resolved_path resolve(volume &vol, std::string_view path);
[[nodiscard]] resolved_path find_path(volume &vol, std::string_view path);
[[nodiscard]] resolved_path find_path(volume &vol, name_path path);

// Opens the directory of an entry. Throws error if it has no first cluster.
[[nodiscard]] directory open_directory(volume &vol, const entry &of);
[[nodiscard]] directory open_directory(volume &vol, const resolved_path &of);

} // namespace qvol
