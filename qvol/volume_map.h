// The map of a volume: its areas, and the owners of its clusters.
//
// Takes one walk through the tree and one through the FAT. A cluster belongs to the first path
// whose chain contains it, so a damaged volume with shared chains or cycles takes no longer.

#pragma once

#include "qvol/areas.h"
#include "qvol/path.h"

#include <string>
#include <vector>

namespace qvol {

// The holder of a cluster: an owner, by its number, or a state of clusters without an owner.
using holder = u32;
inline constexpr holder HOLDER_FREE = ~u32{0};     // free
inline constexpr holder HOLDER_BAD = ~u32{1};      // marked bad
inline constexpr holder HOLDER_LOST = ~u32{2};     // allocated, but no path leads there
inline constexpr holder FIRST_STATE = HOLDER_LOST; // owners have the numbers below

// An entry with the clusters of its chain.
struct cluster_owner {
    name_path path; // empty: the root
    kind type;
    u32 clusters;
    std::vector<cluster_extent> extents; // in the order of the chain
    std::string damage;                  // of the chain, as a message; "": no damage

    [[nodiscard]] bool is_in_pieces() const {
        return extents.size() > 1;
    }
};

// Contiguous clusters with the same holder.
struct held_extent {
    u32 first;
    u32 count;
    holder held_by;
};

// How much the chains are split into pieces.
struct fragmentation {
    u64 chains = 0;
    u64 steps = 0;     // from each cluster of a chain to the next
    u64 jumps = 0;     // steps to a cluster that is not the next one on the medium
    u64 in_pieces = 0; // chains with a jump

    [[nodiscard]] double percent() const {
        return steps == 0 ? 0 : 100.0 * static_cast<double>(jumps) / static_cast<double>(steps);
    }
};

struct volume_map {
    std::string image; // the last component of its path, safe for a terminal
    u32 fat_type;
    u32 cluster_bytes;
    u64 bytes; // of the volume
    std::vector<area> areas;
    u32 clusters;
    u64 files;                         // includes links, and files without clusters
    std::vector<cluster_owner> owners; // entries with a cluster or damage, in the order of the walk
    std::vector<held_extent> extents;  // every cluster once, in the order of the medium

    [[nodiscard]] fragmentation pieces() const;

    // Numbers of owners, at most `count`: the files and links with the most clusters, and the
    // owners with the most pieces.
    [[nodiscard]] std::vector<u32> largest_files(std::size_t count) const;
    [[nodiscard]] std::vector<u32> most_pieces(std::size_t count) const;
};

[[nodiscard]] volume_map map_volume(volume &vol, page_origin from = page_origin::DISK);

// ---- cells ------------------------------------------------------------------------------------

// A cell of a picture: some clusters and their holders.
struct map_cell {
    u32 first;
    u32 count;
    std::vector<held_extent> parts; // in the order of the medium

    [[nodiscard]] bool has_one_holder() const;
};

// Divides the clusters into at most `max_cells` cells of the same size; the last may be smaller.
[[nodiscard]] std::vector<map_cell> cells_of(const volume_map &map, u32 max_cells);

// ---- classes: clusters shown in one colour ----------------------------------------------------

// Each of the largest files has its own class; these are the first classes.
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

    [[nodiscard]] u32 class_of(holder by) const;

    // Numbers of the owners with their own class.
    [[nodiscard]] const std::vector<u32> &largest() const {
        return largest_;
    }

    // The owners of a class, and their clusters; a state is not an owner.
    struct total {
        u64 owners = 0;
        u64 clusters = 0;
        u64 extents = 0;
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
