// What links lead to, in place of the links.

#pragma once

#include "qvol/sources/source.h"

#include <vector>

namespace qvol {

// Replaces each link of a source by a copy of what it leads to. Links that lead out of the source,
// to nothing, to themselves or to a directory that contains them are problems.
[[nodiscard]] std::vector<source_node> without_links(std::vector<source_node> nodes,
                                                     problem_list *problems);

} // namespace qvol
