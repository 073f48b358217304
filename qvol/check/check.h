// The check of a volume, and its repair.

#pragma once

#include "qvol/check/survey.h"

namespace qvol {

// A finding as it is told.
struct reported_finding {
    std::string kind;
    std::string path; // as a terminal may be shown it; "": the volume's
    std::string json_path;
    u32 cluster; // 0: none
    std::string text;
    bool is_repaired = false;
    std::string outcome; // of a repair: what was done, or why it is left

    bool operator<(const reported_finding &other) const {
        return std::tie(kind, path, cluster) < std::tie(other.kind, other.path, other.cluster);
    }
};

struct check_result {
    std::vector<reported_finding> findings; // of the areas, of the tree by path, of lost clusters
    u64 files = 0;
    u64 directories = 0;
    u32 used_clusters = 0;
    u32 clusters = 0;
};

[[nodiscard]] check_result check_volume(volume &vol);

// The same, and mends what can be mended. A volume that nothing can be mended on is not written to.
[[nodiscard]] check_result repair_volume(volume &vol);

} // namespace qvol
