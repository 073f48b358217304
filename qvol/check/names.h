// The names of one directory.

#pragma once

#include "qvol/check/survey.h"

namespace qvol {

// Names that no volume can hold, and names that stand twice among the children of a directory.
void check_names(survey *in, u32 directory);

} // namespace qvol
