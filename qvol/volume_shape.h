// Which volume to make: its FAT width, cluster size and length, for what it is to hold.
//
// The formatter's own arithmetic decides what can be; nothing is reckoned a second time here but
// the space that the content takes.

#pragma once

#include "fat/fat.h"
#include "qvol/host_tree.h"

#include <optional>
#include <string>
#include <vector>

namespace qvol {

inline constexpr u64 MAX_VOLUME_BYTES = u64{1} << 62; // no file is as long

// What is wanted; 0 where it is left open.
struct shape_request {
    u64 bytes = 0;                    // of the volume; 0: as few as hold the content
    u64 max_bytes = MAX_VOLUME_BYTES; // that there is room for
    u32 fat_type = 0;                 // 16 or 32
    u32 sector_bytes = 0;             // is always given
    u32 cluster_bytes = 0;
    u32 page_bytes = 0; // that every area is aligned to; 0: no alignment
};

// A volume that can be formatted.
struct volume_shape {
    u32 fat_type;
    u32 sector_bytes;
    u32 cluster_bytes;
    u32 page_bytes;
    u64 bytes;
    u32 clusters;
};

// What the volume is to hold.
struct volume_content {
    std::string name; // for messages
    const std::vector<host_node> *nodes;
    u32 root_slots;                  // of the root directory in all
    std::vector<u32> reserved_files; // bytes of each

    // Clusters that it takes in a volume of such a shape.
    [[nodiscard]] u64 clusters(u32 fat_type, u32 cluster_bytes) const;
};

// The shape of a volume that holds the content: of the length asked for, or the smallest. Where no
// cluster size is given it is 4 KiB (from 8 GiB on 8 KiB, from 16 GiB on 16 KiB, from 32 GiB on
// 32 KiB), or the next one above that will do, or the next one below. Throws error that tells what
// does not go together, and what would.
[[nodiscard]] volume_shape choose_shape(const shape_request &request,
                                        const volume_content &content);

// The formatter's request for a shape.
[[nodiscard]] fat_format_param formatter_request(const volume_shape &shape);

inline constexpr u32 MAX_CLUSTER_BYTES = 32 * 1024;

} // namespace qvol
