// The check of a volume, and its repair.

#pragma once

#include "qvol/check/survey.h"

namespace qvol {

// A finding as it is printed.
struct reported_finding {
    std::string kind;
    std::string path; // safe for a terminal; "": the finding is about the volume
    std::string json_path;
    u32 cluster = 0; // 0: no cluster
    std::string text;
    bool is_repaired = false;
    std::string outcome;         // of a repair: what was done, or why nothing was
    std::string json_other;      // path of another entry that shares clusters; "": none does
    bool restores_entry = false; // of lost clusters

    bool operator<(const reported_finding &other) const {
        return std::tie(kind, path, cluster) < std::tie(other.kind, other.path, other.cluster);
    }
};

struct check_result {
    std::vector<reported_finding> findings; // areas, then the tree by path, then lost clusters
    u64 files = 0;
    u64 directories = 0;
    u64 sound_entries = 0;        // files and directories with all their clusters
    u64 broken_chains = 0;        // findings that leave a chain incomplete or claimed twice
    bool are_copies_equal = true; // of the FAT

    // Whether another copy of the FAT may have what the first one lacks.
    [[nodiscard]] bool is_fat_in_doubt() const {
        return broken_chains != 0 && !are_copies_equal;
    }
    u32 used_clusters = 0;
    u32 clusters = 0;
};

[[nodiscard]] check_result check_volume(volume &vol);

struct repair_request {
    repair_extent extent = repair_extent::ALL;
    bool frees_lost = false;      // instead of keeping lost clusters
    bool renames = true;          // entries whose names are invalid or taken
    bool is_fat_believed = false; // otherwise nothing is written while the FAT is in doubt
    bool rebuilds_boot = false;   // if it is lost and has no backup
};

// Checks the volume and repairs what can be repaired. Writes nothing if there is nothing to repair.
[[nodiscard]] check_result repair_volume(volume &vol, const repair_request &request);

} // namespace qvol
