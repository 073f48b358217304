// Writes an image to a device and reads it back.
//
// The first bytes, with the boot sector or the table of partitions, are zeros until everything else
// is written, synced and verified: a device that is not complete has no volume.

#pragma once

#include "qvol/flashing/image_stream.h"
#include "qvol/flashing/uncached_file.h"
#include "qvol/progress.h"

#include <optional>
#include <string>
#include <vector>

namespace qvol {

// Informs the device that its content is not needed any more; makes holes in an image file.
// Throws error if it cannot do that; then nothing has changed.
void discard_content(const target &where);

class flashing {
public:
    // `zeroes_rest`: what the image does not state is overwritten with zeros.
    flashing(const target &where, image_stream *image, bool zeroes_rest, bool is_quiet);

    // From here on the device has no volume.
    void blank_head();

    // Everything but the first bytes.
    void write();

    // Reads what was written, past the page cache. Throws error with the differing ranges.
    void verify();

    // The first bytes. `verifies`: reads them back, too.
    void finish(bool verifies);

    [[nodiscard]] u64 image_bytes() const { // known at the end of write()
        return end_;
    }
    [[nodiscard]] u64 written_bytes() const {
        return written_bytes_;
    }
    [[nodiscard]] u64 zeroed_bytes() const {
        return zeroed_bytes_;
    }

private:
    struct written_piece {
        byte_range at;
        std::string digest; // "": zeros
    };

    void check_range(const byte_range &range) const;
    void write_range(const byte_range &range, progress *bar);
    void write_piece(u64 offset, std::span<const u8> bytes);
    void zero(byte_range range, progress *bar);
    void zero_pages(const byte_range &range);
    [[nodiscard]] bool is_as_written(const written_piece &piece, progress *bar);

    const target &where_;
    image_stream &image_;
    bool zeroes_rest_;
    bool is_quiet_;
    uncached_file file_;
    std::vector<u8> head_; // the first bytes of the device, as they will be
    std::vector<u8> buffer_;
    std::vector<written_piece> pieces_;
    u64 end_ = 0; // of the last range
    u64 written_bytes_ = 0;
    u64 zeroed_bytes_ = 0;
};

} // namespace qvol
