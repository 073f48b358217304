// The texts of a map, in the terminal and as SVG.

#pragma once

#include "qvol/names.h"
#include "qvol/volume_map.h"

#include <string>

namespace qvol {

// The path of an owner, safe for a terminal; a directory ends with a slash.
[[nodiscard]] std::string owner_text(const name_codec &names, const cluster_owner &owner);

// A class that is not a single file: "92 other files", "free".
[[nodiscard]] std::string class_text(u32 number, u64 owners);

// "4 KiB", "1.5 MiB": a size without needless decimals.
[[nodiscard]] std::string short_size(u64 bytes);

// "12.3 %"; a value above 0 is never shown as 0.
[[nodiscard]] std::string percent_text(double percent);

// "7 of 103 chains in pieces; 45 jumps in 366 steps from cluster to cluster"
[[nodiscard]] std::string jumps_text(const fragmentation &pieces);

// "in 14 pieces, the largest 8.2 MiB"
[[nodiscard]] std::string free_space_text(const volume_map &map);

// The bytes of the volume in the enlarged part of the map: the areas before the data area, and some
// of that.
[[nodiscard]] u64 zoomed_bytes(const volume_map &map);

} // namespace qvol
