// A picture of the FAT, to be compared with what a call left.

#pragma once

#include "tests/support/volume.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace testing_support {

// Every copy of the FAT as it stood at one moment, to be changed by hand and compared.
class fat_picture {
public:
    explicit fat_picture(volume *of)
        : of_(of), width_(sv->fat_type / 8), copy_bytes_(sv->fat_size * sv->sector_size),
          bytes_(all_copies()) {}

    // What the library is to leave in an entry of the first copy: the top 4 bits of a wide entry
    // stay as they are.
    fat_picture &with(std::uint32_t cluster, std::uint32_t value) {
        const std::size_t at = std::size_t{cluster} * width_;
        const std::uint32_t kept = width_ == 4 ? 0xF0000000 : 0;
        model::put_field(&bytes_, at, width_,
                         (model::field_of(bytes_, at, width_) & kept) | (value & ~kept));
        return *this;
    }

    // Where the medium differs from the picture now; empty where it does not.
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
