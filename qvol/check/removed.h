// Removed entries of a directory whose clusters were not freed.

#pragma once

#include "qvol/check/slot_space.h"
#include "qvol/check/survey.h"

namespace qvol {

// Adds those of a directory to the survey.
void find_removed_entries(survey *checked, u32 directory, const slot_space &space);

} // namespace qvol
