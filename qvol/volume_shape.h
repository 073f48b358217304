// Chooses the volume to create for a given content: its FAT type, cluster size and length.
//
// The formatter's own arithmetic decides which volumes are possible; only the space of the content
// is calculated here.

#pragma once

#include "core/geometry.h"
#include "qvol/sources/node.h"

#include <optional>
#include <string>
#include <vector>

namespace qvol {

inline constexpr u64 MIN_VOLUME_BYTES = u64{64} * 1024;
inline constexpr u64 MAX_VOLUME_BYTES = u64{1} << 62; // longer than any file

// The requested volume; 0: not specified.
struct shape_request {
    u64 bytes = 0;                    // of the volume; 0: the smallest that holds the content
    u64 max_bytes = MAX_VOLUME_BYTES; // available for the volume
    u32 fat_type = 0;                 // 12, 16 or 32
    u32 sector_bytes = 0;             // always specified
    u32 cluster_bytes = 0;
    u32 page_bytes = 0;   // alignment of every area; 0: no alignment
    u32 root_entries = 0; // of FAT12 and FAT16
    bool may_be_small_fat32 = false;
    bool are_keys = false; // for messages: the options are keys of a part, "size=64M"
};

// A volume that can be formatted.
struct volume_shape {
    u32 fat_type;
    u32 sector_bytes;
    u32 cluster_bytes;
    u32 page_bytes;
    u32 root_entries; // of FAT12 and FAT16
    u64 bytes;
    u32 clusters;

    // FAT32 with so few clusters that systems which decide by their number take it for another
    // width.
    [[nodiscard]] bool is_small_fat32() const {
        return fat_type == 32 && clusters < core::FAT32_MIN_CLUSTERS;
    }
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

// The shape of a volume that holds the content: of the requested length, or the smallest.
//
// If the FAT type is not requested, FAT12 is chosen only where FAT16 and FAT32 are not possible or,
// for the smallest volume, where the content would not fill the smallest FAT16; never with reserved
// files, whose driver does not read it. FAT32 with fewer clusters than usual is chosen only if
// FAT32 is requested and not possible otherwise in the requested length.
//
// The default cluster size is 4 KiB (from 8 GiB on 8 KiB, from 16 GiB on 16 KiB, from 32 GiB on 32
// KiB); if it is not possible, the next larger one that is, or else the next smaller one. Throws
// error with the reason and with options that are possible.
[[nodiscard]] volume_shape choose_shape(const shape_request &request,
                                        const volume_content &content);

// The formatter's request for a shape.
[[nodiscard]] core::layout_request layout_request_of(const volume_shape &shape);

inline constexpr u32 MAX_CLUSTER_BYTES = cluster_counts::LARGEST;

} // namespace qvol
