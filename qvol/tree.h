// Going through everything below a directory.
//
// The walk keeps its own stack, as deep as the tree, enters every directory once, and reads no more
// clusters than the volume has: a tree that leads back into itself, or whose directories share
// their chains, ends.

#pragma once

#include "qvol/path.h"

#include <functional>

namespace qvol {

// What the walk meets. Each may be left empty.
struct tree_visitor {
    // An entry, its path, and whether it is the last one of its directory. A directory is entered
    // after its own visit where this returns true.
    std::function<bool(const name_path &path, const entry &found, bool is_last)> visit;
    // Behind the last entry below a directory that was entered.
    std::function<void(const name_path &path)> leave;
    // A directory that cannot be read; the walk goes on behind it. Left empty, the error is thrown.
    std::function<void(const name_path &path, const std::string &why)> fail;
};

// Entries come in the order of their names; dot entries and the volume label are left out.
void walk_tree(volume &vol, const name_path &path, const directory &top,
               const tree_visitor &visitor);

// The entries that a listing shows, in the order of their names.
[[nodiscard]] std::vector<entry> listed_entries(const directory &of);

} // namespace qvol
