// A boot sector for a volume that has lost it, from the FATs and the directories that are there.
//
// What these leave open are candidates. Each is judged by a check of the whole volume in memory: a
// chain is evidence, it has to agree with the entry that it belongs to.

#pragma once

#include "qvol/session.h"

#include <string>
#include <vector>

namespace qvol {

struct rebuilt_boot {
    std::vector<u8> sector;
    std::string text; // "FAT16, 2 FATs of 63 sectors from sector 4, ..."
};

// Whether there is a FAT that a boot sector may be rebuilt from.
[[nodiscard]] bool has_fats(const target &where);

// Writes nothing. Throws error with what was found if that is not enough.
[[nodiscard]] rebuilt_boot rebuilt_boot_sector(target *where, const std::string &encoding);

} // namespace qvol
