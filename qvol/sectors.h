// Transfers of contiguous sectors of a volume.

#pragma once

#include "core/volume.h"

#include <span>
#include <vector>

namespace qvol {

using core::u32;
using core::u64;
using core::u8;

// Throw error if the transfer fails or is incomplete.
[[nodiscard]] std::vector<u8> read_extent(const core::volume &on, u64 sector, u32 count);
void read_extent_into(const core::volume &on, u64 sector, std::span<u8> bytes);
void write_extent(const core::volume &on, u64 sector, std::span<const u8> bytes);

[[nodiscard]] bool is_zero(std::span<const u8> bytes); // all of them

} // namespace qvol
