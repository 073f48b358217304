// The map of a volume: its areas, and which path holds which clusters.
//
// One walk through the tree and one through the FAT. A cluster belongs to the first path that the
// walk finds it in; so a damaged volume, whose chains meet or run in circles, takes no longer.

#pragma once

#include "qvol/areas.h"
#include "qvol/path.h"

#include <string>
#include <vector>

namespace qvol {

// What is in a cluster: one of the owners, by its number, or nothing that a path leads to.
using holder = u32;
inline constexpr holder HOLDER_FREE = ~u32{0};     // free
inline constexpr holder HOLDER_BAD = ~u32{1};      // marked bad
inline constexpr holder HOLDER_LOST = ~u32{2};     // in use, and no path leads there
inline constexpr holder FIRST_STATE = HOLDER_LOST; // owners have the numbers below

// An entry with the clusters of its chain.
struct cluster_owner {
    name_path path; // empty: the root
    kind type;
    u32 clusters;
    std::vector<cluster_extent> runs; // in the order of the chain
    std::string damage;               // what is wrong with its chain; "" for nothing

    [[nodiscard]] bool is_in_pieces() const {
        return runs.size() > 1;
    }
};

// Clusters side by side that the same holder has.
struct extent {
    u32 first;
    u32 count;
    holder held_by;
};

// How far the chains are from lying in one piece each.
struct fragmentation {
    u64 chains = 0;
    u64 steps = 0;     // from each cluster of a chain to the next
    u64 jumps = 0;     // of those: to another place than the next cluster of the medium
    u64 in_pieces = 0; // chains with a jump

    [[nodiscard]] double percent() const {
        return steps == 0 ? 0 : 100.0 * static_cast<double>(jumps) / static_cast<double>(steps);
    }
};

struct volume_map {
    std::string image; // the last component of its path, as it may be shown
    u32 fat_type;
    u32 cluster_bytes;
    u64 bytes; // of the volume
    std::vector<area> areas;
    u32 clusters;
    u64 files;                         // those without clusters and links included
    std::vector<cluster_owner> owners; // with a cluster or damage, in the order of the walk
    std::vector<extent> extents;       // every cluster once, in the order of the medium

    [[nodiscard]] fragmentation pieces() const;

    // Numbers of owners: files and links by their clusters, and everything by its pieces, the most
    // first.
    [[nodiscard]] std::vector<u32> largest_files(std::size_t most) const;
    [[nodiscard]] std::vector<u32> most_pieces(std::size_t most) const;
};

[[nodiscard]] volume_map map_volume(volume &vol);

// ---- cells ------------------------------------------------------------------------------------

// A cell of a picture: so many clusters, and who holds them.
struct map_cell {
    u32 first;
    u32 count;
    std::vector<extent> parts; // in the order of the medium

    [[nodiscard]] bool has_one_holder() const;
};

// The clusters in at most `most` cells of the same size, of which the last may be smaller.
[[nodiscard]] std::vector<map_cell> cells_of(const volume_map &map, u32 most);

// ---- what is shown in one colour --------------------------------------------------------------

// The largest files have classes of their own, the first ones.
inline constexpr u32 FILES_WITH_CLASS = 8;
inline constexpr u32 CLASS_OTHER_FILES = FILES_WITH_CLASS;
inline constexpr u32 CLASS_DIRECTORIES = FILES_WITH_CLASS + 1;
inline constexpr u32 CLASS_FREE = FILES_WITH_CLASS + 2;
inline constexpr u32 CLASS_LOST = FILES_WITH_CLASS + 3;
inline constexpr u32 CLASS_BAD = FILES_WITH_CLASS + 4;
inline constexpr u32 CLASSES = FILES_WITH_CLASS + 5;

class map_classes {
public:
    explicit map_classes(const volume_map &map);

    [[nodiscard]] u32 of(holder by) const;

    // Numbers of the owners with a class of their own.
    [[nodiscard]] const std::vector<u32> &largest() const {
        return largest_;
    }

    // The owners of a class, and their clusters; a state counts as none.
    struct total {
        u64 owners = 0;
        u64 clusters = 0;
        u64 runs = 0;
    };
    [[nodiscard]] const total &total_of(u32 number) const {
        return totals_[number];
    }

private:
    void count(const volume_map &map);

    std::vector<u32> largest_;
    std::vector<u32> class_of_owner_;
    std::array<total, CLASSES> totals_{};
};

} // namespace qvol
