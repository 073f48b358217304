// A snapshot of the FAT, compared with the FAT after a call.

#pragma once

#include "tests/support/volume.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace testing_support {

// A snapshot of all FAT copies; a test changes it as it expects and compares.
class fat_picture {
public:
    explicit fat_picture(volume *of)
        : of_(of), width_(sv->fat_type / 8), copy_bytes_(sv->fat_size * sv->sector_size),
          bytes_(all_copies()) {}

    // Sets the expected value of an entry of the first copy; the top 4 bits of a FAT32 entry are
    // not changed.
    fat_picture &with(std::uint32_t cluster, std::uint32_t value) {
        const std::size_t at = std::size_t{cluster} * width_;
        const std::uint32_t kept = width_ == 4 ? 0xF0000000 : 0;
        model::put_field(&bytes_, at, width_,
                         (model::field_of(bytes_, at, width_) & kept) | (value & ~kept));
        return *this;
    }

    // Where the medium differs from the snapshot now; empty if they are equal.
    [[nodiscard]] std::string difference() const {
        const std::vector<std::uint8_t> now = all_copies();
        std::ostringstream found;
        for (std::size_t at = 0; at < bytes_.size(); at += width_) {
            const std::uint32_t is = model::field_of(now, at, width_);
            const std::uint32_t should_be = model::field_of(bytes_, at, width_);
            if (is != should_be) {
                found << "entry " << at % copy_bytes_ / width_ << " of copy " << at / copy_bytes_
                      << " is " << is << ", not " << should_be << "; ";
            }
        }
        return found.str();
    }

private:
    [[nodiscard]] std::vector<std::uint8_t> all_copies() const {
        return of_->disk.peek(volume::fat_offset(0), 2 * copy_bytes_);
    }

    volume *of_;
    std::size_t width_;
    std::size_t copy_bytes_;
    std::vector<std::uint8_t> bytes_;
};

} // namespace testing_support
