// New names for entries whose names are invalid or taken.

#pragma once

#include "qvol/session.h"

#include <vector>

namespace qvol {

// Renames the entries in these slots of a directory, which is given by its first cluster. A name
// that is valid stays if no other entry has it. Entries that have no space for a new name are left.
void rename_entries(volume &vol, u32 directory_start, const std::vector<u32> &slots);

} // namespace qvol
