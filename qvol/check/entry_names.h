// The names of one directory.

#pragma once

#include "qvol/check/survey.h"

namespace qvol {

// Finds invalid names and duplicate names among the children of a directory.
void check_names(survey *checked, u32 directory);

} // namespace qvol
