// The Android sparse image format, version 1.0: chunks of bytes, of one repeated word, and of what
// need not be written.

#pragma once

#include "qvol/flashing/finished_image.h"
#include "qvol/flashing/image_input.h"
#include "qvol/flashing/output_file.h"

#include <memory>

namespace qvol {

// Blocks of zeros that must be written take no space. The blocks of the format are smaller than
// FLASH_BLOCK_BYTES if the image is no multiple of that.
void write_android_sparse(const finished_image &image, output_file *to, progress *bar);

// Whether a file begins like one.
[[nodiscard]] bool is_android_sparse(std::span<const u8> head);

// The chunks that must be written.
[[nodiscard]] std::unique_ptr<image_stream> open_android_sparse(std::unique_ptr<image_input> input);

} // namespace qvol
