// An image as what must be written of it: ranges of bytes in ascending order. What is in no range
// may have any content on the medium.

#pragma once

#include "core/bytes.h"

#include <memory>
#include <optional>
#include <span>
#include <string>

namespace qvol {

struct byte_range {
    core::u64 offset;
    core::u64 bytes;

    [[nodiscard]] core::u64 end() const {
        return offset + bytes;
    }
    bool operator==(const byte_range &) const = default;
};

class image_stream {
public:
    image_stream() = default;
    virtual ~image_stream() = default;
    image_stream(const image_stream &) = delete;
    image_stream &operator=(const image_stream &) = delete;

    // Bytes of the whole image, with what must not be written; no value: not known before the end,
    // as from a pipe.
    [[nodiscard]] virtual std::optional<core::u64> size() const = 0;

    // The next range; no value after the last one. The bytes of the previous range must have been
    // read. Throws error if the image is damaged or cut.
    [[nodiscard]] virtual std::optional<byte_range> next_range() = 0;

    // Reads the next bytes of the range, all of them. Throws error, also if a checksum differs.
    virtual void read(std::span<core::u8> bytes) = 0;
};

// Opens an image by its content: a plain image file (see plain_ranges.h), with or without a
// bmap, an Android sparse image, or a zstd-compressed image. `path` "-": standard input. `bmap`:
// path of the bmap, "": none. Throws error.
[[nodiscard]] std::unique_ptr<image_stream> open_image_stream(const std::string &path,
                                                              const std::string &bmap);

} // namespace qvol
