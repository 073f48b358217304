// Images compressed with zstd, in the seekable format: frames of FLASH_PIECE_BYTES each, and a
// table of their sizes in a frame that decompressors skip.

#pragma once

#include "qvol/flashing/finished_image.h"
#include "qvol/flashing/image_input.h"
#include "qvol/flashing/output_file.h"

#include <memory>

namespace qvol {

// What need not be written are zeros, so that every decompressor makes the whole image of it.
void write_zstd(const finished_image &image, output_file *to, progress *bar);

// Whether a file begins like one, seekable or not.
[[nodiscard]] bool is_zstd(std::span<const u8> head);

// All bytes of the image: the compressed one does not state what need not be written.
[[nodiscard]] std::unique_ptr<image_stream> open_zstd(std::unique_ptr<image_input> input);

} // namespace qvol
