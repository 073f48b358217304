// Chooses the volume to create for a given content: its FAT type, cluster size and length.
//
// The formatter's own arithmetic decides which volumes are possible; only the space of the content
// is calculated here.

#pragma once

#include "core/geometry.h"
#include "qvol/host_tree.h"

#include <optional>
#include <string>
#include <vector>

namespace qvol {

inline constexpr u64 MAX_VOLUME_BYTES = u64{1} << 62; // longer than any file

// The requested volume; 0: not specified.
struct shape_request {
    u64 bytes = 0;                    // of the volume; 0: the smallest that holds the content
    u64 max_bytes = MAX_VOLUME_BYTES; // available for the volume
    u32 fat_type = 0;                 // 16 or 32
    u32 sector_bytes = 0;             // always specified
    u32 cluster_bytes = 0;
    u32 page_bytes = 0; // alignment of every area; 0: no alignment
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

// The content of the volume to create.
struct volume_content {
    std::string name; // for messages
    cluster_counts nodes;
    u32 root_slots;                  // total of the root directory
    std::vector<u32> reserved_files; // bytes of each

    // Clusters that the content needs in a volume of this shape.
    [[nodiscard]] u64 clusters(u32 fat_type, u32 cluster_bytes) const;
};

// The shape of a volume that holds the content: of the requested length, or the smallest. The
// default cluster size is 4 KiB (from 8 GiB on 8 KiB, from 16 GiB on 16 KiB, from 32 GiB on 32
// KiB); if it is not possible, the next larger one that is, or else the next smaller one. Throws
// error with the reason and with options that are possible.
[[nodiscard]] volume_shape choose_shape(const shape_request &request,
                                        const volume_content &content);

// The formatter's request for a shape.
[[nodiscard]] core::layout_request layout_request_of(const volume_shape &shape);

inline constexpr u32 MAX_CLUSTER_BYTES = cluster_counts::LARGEST;

} // namespace qvol
