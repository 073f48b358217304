// One copy of the FAT, read entry by entry.

#pragma once

#include "qvol/sectors.h"

#include <vector>

namespace qvol {

class fat_copy {
public:
    fat_copy(const core::volume &on, u32 copy)
        : on_(on), start_(on.at.fat_start + u64{copy} * on.at.fat_sectors) {}

    // Of a data cluster, without its reserved bits.
    [[nodiscard]] u32 get(u32 cluster);

private:
    core::volume on_;
    u64 start_;
    u64 loaded_ = ~u64{0}; // sector of the copy
    std::vector<u8> bytes_;
};

} // namespace qvol
