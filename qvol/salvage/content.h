// The content of a file as far as it can be found and read.

#pragma once

#include "qvol/fat_table.h"
#include "qvol/host.h"

#include <span>
#include <string>
#include <vector>

namespace qvol {

struct found_content {
    std::vector<u32> clusters;
    std::string problem; // why there are fewer than the file needs; "": there are not
};

// The clusters of the chain from `start`, at most those for `size` bytes, up to the first link that
// leads nowhere.
[[nodiscard]] found_content find_content(fat_table &table, u32 start, u64 size);

// Writes the first `size` bytes of the clusters, with zeros for sectors that cannot be read.
// Returns the number of these. Throws error if no sector can be read.
u64 copy_content(const core::volume &on, std::span<const u32> clusters, u64 size,
                 const write_piece &write);

// "2 sectors cannot be read and are zeros"
[[nodiscard]] std::string unreadable_text(u64 sectors);

} // namespace qvol
