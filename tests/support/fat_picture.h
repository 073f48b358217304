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
        if (width_ == 4) {
            value = (value & 0x0FFFFFFF) | static_cast<std::uint32_t>(bytes_[at + 3] & 0xF0) << 24;
        }
        for (std::size_t i = 0; i < width_; i++) {
            bytes_.at(at + i) = static_cast<std::uint8_t>(value >> (8 * i));
        }
        return *this;
    }

    // Where the medium differs from the picture now; empty where it does not.
    [[nodiscard]] std::string difference() const {
        const std::vector<std::uint8_t> now = all_copies();
        std::ostringstream found;
        for (std::size_t at = 0; at < bytes_.size(); at += width_) {
            if (!std::equal(now.begin() + static_cast<std::ptrdiff_t>(at),
                            now.begin() + static_cast<std::ptrdiff_t>(at + width_),
                            bytes_.begin() + static_cast<std::ptrdiff_t>(at))) {
                found << "entry " << at % copy_bytes_ / width_ << " of copy " << at / copy_bytes_
                      << " is " << value_in(now, at) << ", not " << value_in(bytes_, at) << "; ";
            }
        }
        return found.str();
    }

private:
    [[nodiscard]] std::vector<std::uint8_t> all_copies() const {
        return of_->disk.peek(volume::fat_offset(0), 2 * copy_bytes_);
    }
    [[nodiscard]] std::uint32_t value_in(const std::vector<std::uint8_t> &bytes,
                                         std::size_t at) const {
        std::uint32_t value = 0;
        for (std::size_t i = width_; i-- > 0;) {
            value = value << 8 | bytes[at + i];
        }
        return value;
    }

    volume *of_;
    std::size_t width_;
    std::size_t copy_bytes_;
    std::vector<std::uint8_t> bytes_;
};

} // namespace testing_support
