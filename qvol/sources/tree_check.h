// Whether a volume can store a tree.

#pragma once

#include "qvol/sources/source.h"

#include <vector>

namespace qvol {

// Sets the names on the volume and their slots. Adds a problem for each invalid name, file of 4 GiB
// or more, long link, and name that cannot be in one directory with an earlier one.
// `allows_long_names`: if false, names that do not fit 8.3 are problems.
void check_tree(std::vector<source_node> *nodes, const name_codec &names, bool allows_long_names,
                problem_list *problems);

} // namespace qvol
