// Several trees as one.

#pragma once

#include "qvol/sources/source.h"

#include <string>
#include <vector>

namespace qvol {

// Adds a later tree to a tree; both are sorted. Directories of one name become one with the time of
// the later; of files and links the later counts. A directory and something else are a problem.
void merge_tree(std::vector<source_node> *into, std::vector<source_node> &&later,
                problem_list *problems);

// A tree below a directory: "/a/b". Directories that lead there are made.
[[nodiscard]] std::vector<source_node> tree_below(const std::string &directory,
                                                  std::vector<source_node> nodes);

} // namespace qvol
