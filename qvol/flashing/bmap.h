// The block map of an image ("bmap", version 2.0): a small XML file that names the blocks to write,
// with a SHA-256 of each range.

#pragma once

#include "qvol/flashing/finished_image.h"
#include "qvol/flashing/output_file.h"

#include <memory>
#include <string>

namespace qvol {

void write_bmap(const finished_image &image, output_file *to, progress *bar);

// The ranges of the map at `path`, with the bytes of an image, whose own ranges do not count: what
// it leaves out is zero. Reading compares the checksums.
[[nodiscard]] std::unique_ptr<image_stream> open_mapped_image(std::unique_ptr<image_stream> image,
                                                              const std::string &path);

} // namespace qvol
