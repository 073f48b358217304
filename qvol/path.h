// Paths in the volume, of any depth.
//
// A path is taken apart by its slashes. "." stays, ".." goes up as the path is spelt, an empty
// component counts for nothing; links are not followed. The way down is walked in the directories
// themselves.

#pragma once

#include "qvol/session.h"

#include <string>
#include <string_view>
#include <vector>

namespace qvol {

// The names of a path from the root on.
using name_path = std::vector<std::u16string>;

// Throws usage_error where the path is no text in the encoding.
[[nodiscard]] name_path parse_path(const name_codec &names, std::string_view path);

// The path as a terminal may be shown it, and in JSON; "/" for the root.
[[nodiscard]] std::string shown_path(const name_codec &names, const name_path &path);
[[nodiscard]] std::string json_path(const name_path &path);

// Where a path has led: the directory that holds the entry, and the entry. The root has none.
struct place {
    name_path path;
    directory parent; // of the root: itself
    std::optional<entry> found;

    [[nodiscard]] bool is_root() const {
        return path.empty();
    }
    [[nodiscard]] bool is_directory() const {
        return is_root() || (found && found->is_directory());
    }
    // The directory that the path names, as a directory to be read.
    [[nodiscard]] u32 start() const {
        return is_root() ? directory::ROOT : found->start();
    }
};

// Walks down. Throws error, with the path as far as it was found, where a component is missing or
// is no directory. `find_place` leaves the last component open: `found` is then empty.
[[nodiscard]] place resolve(volume &vol, std::string_view path);
[[nodiscard]] place find_place(volume &vol, std::string_view path);
[[nodiscard]] place find_place(volume &vol, name_path path);

// Opens the directory that an entry names. Throws error where it has no cluster.
[[nodiscard]] directory open_directory(volume &vol, const entry &of);
[[nodiscard]] directory open_directory(volume &vol, const place &of);

} // namespace qvol
