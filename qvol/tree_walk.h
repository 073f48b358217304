// Walks everything below a directory.
//
// The walk has its own stack, enters every directory once, and reads at most as many clusters as
// the volume has. So it ends even if the tree has a cycle or directories share their chains.

#pragma once

#include "qvol/path.h"

#include <functional>

namespace qvol {

// Callbacks of the walk. Each may be empty.
struct tree_visitor {
    // Called for each entry. If it returns true for a directory, the walk enters that next.
    std::function<bool(const name_path &path, const entry &found, bool is_last)> visit;
    // Called with all entries of each entered directory, before the first is visited, but not of
    // the top.
    std::function<void(const name_path &path, const std::vector<entry> &entries)> enter;
    // Called after the last entry of each entered directory, but not of the top.
    std::function<void(const name_path &path)> leave;
    // Called for a directory that cannot be read; the walk continues after it. If empty, the walk
    // throws.
    std::function<void(const name_path &path, const std::string &why)> fail;
};

// Visits entries in the order of their names, without dot entries and the volume label.
void walk_tree(volume &vol, const name_path &path, const directory &top,
               const tree_visitor &visitor);

// The entries to list, in the order of their names: no dot entries, no volume label.
[[nodiscard]] std::vector<entry> listed_entries(const directory &of);

} // namespace qvol
