// The content of a bmap file, and its text.

#pragma once

#include "qvol/flashing/image_stream.h"

#include <string>
#include <vector>

namespace qvol {

struct mapped_range {
    byte_range at;      // in whole blocks, but for the end of the image
    std::string digest; // SHA-256, in lower-case hexadecimal digits
};

struct block_map {
    core::u64 image_bytes;
    core::u64 block_bytes;
    std::vector<mapped_range> ranges; // ascending
};

// With the checksum of the text in it.
[[nodiscard]] std::string text_of_block_map(const block_map &map);

// Only what `path` states without contradiction, in version 2 with SHA-256. Throws error.
[[nodiscard]] block_map read_block_map(const std::string &path);

} // namespace qvol
