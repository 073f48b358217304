// The names of one directory.

#pragma once

#include "qvol/check/survey.h"

namespace qvol {

// Why the 11 bytes of the entry are not a valid short name, if they are not.
[[nodiscard]] std::optional<std::string> short_name_problem(const entry &named);

// Finds invalid names and duplicate names among the children of a directory.
void check_names(survey *checked, u32 directory);

} // namespace qvol
