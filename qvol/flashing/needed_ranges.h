// What must be written of an image to have its content on a medium with any earlier content.
//
// Of a volume: everything before the clusters (boot sectors, all copies of the FAT in full, the
// root directory of FAT12 and FAT16) and every cluster in use. The free entries of a FAT are zeros
// that must be on the medium. Only free clusters are left out, and clusters marked bad.

#pragma once

#include "qvol/flashing/image_stream.h"
#include "qvol/session.h"

#include <vector>

namespace qvol {

// Ascending, in bytes from the start of the file that contains the volume.
[[nodiscard]] std::vector<byte_range> needed_ranges(volume &vol);

// The parts of a file that are not holes, ascending. `start`: where its first byte is counted. A
// device has no holes.
[[nodiscard]] std::vector<byte_range> data_ranges(const target &of, u64 start = 0);

// Moves the ends of ascending ranges outwards to whole blocks, those beyond `size` to `size`, and
// joins ranges that touch.
[[nodiscard]] std::vector<byte_range> in_blocks(const std::vector<byte_range> &ranges,
                                                u64 block_bytes, u64 size);

[[nodiscard]] u64 total_bytes(const std::vector<byte_range> &ranges);

} // namespace qvol
