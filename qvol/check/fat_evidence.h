// Which copy of the FAT to believe where they differ.
//
// The first copy is the one that some drivers write alone, so it counts unless its chains are
// broken. Then sectors of another copy replace its own if fewer chains are broken with them and
// everything is still found: a chain is evidence, it has to agree with the directory entry that it
// belongs to.

#pragma once

#include "qvol/session.h"

#include <optional>
#include <string>
#include <vector>

namespace qvol {

// Sectors of another copy that are to replace those of the first one.
struct fat_replacement {
    struct run {
        u32 copy;
        u64 first; // sector, counted from the start of the copy
        u64 count;
    };
    std::vector<run> runs;
    u64 broken_before; // number of findings about chains
    u64 broken_after;

    [[nodiscard]] u64 sectors() const;
    // "FAT copy 0 is damaged in ..."
    [[nodiscard]] std::string text() const;
};

// No value if the first copy explains as much as the others. Nothing is written.
[[nodiscard]] std::optional<fat_replacement> find_better_fat(target *where,
                                                             const std::string &encoding);

void replace_fat_sectors(const core::volume &on, const fat_replacement &wanted);

} // namespace qvol
