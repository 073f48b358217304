// Sectors of the FAT that were overwritten: blank although chains lead there, full of values that
// no cluster can have, or, where chains are broken, without any order.

#pragma once

#include "qvol/check/survey.h"

#include <map>

namespace qvol {

class fat_damage {
public:
    explicit fat_damage(const survey &checked);

    // Whether the sector with the entry of the cluster was overwritten.
    [[nodiscard]] bool covers(u32 cluster);

private:
    [[nodiscard]] u64 sector_of(u32 cluster) const;
    [[nodiscard]] bool is_overwritten(u32 cluster);

    fat_table &table_;
    std::map<u64, u32> broken_chains_;   // that end at an entry of the sector
    std::map<u64, bool> is_overwritten_; // by sector
};

// The entry that breaks the chain: that of the cluster which is marked free, else that of its last
// cluster.
[[nodiscard]] u32 breaking_cluster(const claimed_chain &chain);

} // namespace qvol
