// The check and the repair of a whole target, with what its volume has elsewhere: the backup of its
// boot sector, other copies of its FAT. A repair copies that before everything else, a check uses
// it from memory.

#pragma once

#include "qvol/check/check.h"

#include <string>

namespace qvol {

// Throws error if the target has no volume, and nothing to make it one again.
[[nodiscard]] check_result check_target(target *where, const std::string &encoding);

[[nodiscard]] check_result repair_target(target *where, const std::string &encoding,
                                         const repair_request &request);

} // namespace qvol
