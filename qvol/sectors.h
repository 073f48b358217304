// Transfers of contiguous sectors of the open volume.

#pragma once

#include "core/bytes.h"

#include <span>
#include <vector>

namespace qvol {

using core::u32;
using core::u64;
using core::u8;

// Throw error if the transfer fails or is incomplete.
[[nodiscard]] std::vector<u8> read_extent(u64 sector, u32 count);
void read_extent_into(u64 sector, std::span<u8> bytes);
void write_extent(u64 sector, std::span<const u8> bytes);

// First sector of a data cluster.
[[nodiscard]] u64 sector_of_cluster(u32 cluster);

} // namespace qvol
