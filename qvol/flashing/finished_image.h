// An image that is complete, as what its forms for flashing are made from.

#pragma once

#include "qvol/flashing/needed_ranges.h"
#include "qvol/progress.h"

namespace qvol {

struct finished_image {
    const target &where;
    std::vector<byte_range> needed; // in blocks of FLASH_BLOCK_BYTES

    [[nodiscard]] u64 size() const { // bytes
        return where.size();
    }
};

// What must be written is rounded to blocks of this size in every form.
inline constexpr u64 FLASH_BLOCK_BYTES = 4096;

// Bytes that are read and converted at once.
inline constexpr std::size_t FLASH_PIECE_BYTES = std::size_t{1} << 20;

} // namespace qvol
