// The areas of the open volume, and their alignment to the pages of a flash.

#pragma once

#include "qvol/session.h"

#include <array>
#include <string>
#include <vector>

namespace qvol {

// The page sizes that flash devices have, in bytes.
inline constexpr std::array<u32, 4> PAGE_SIZES = {2048, 4096, 8192, 16384};

enum class area_kind { RESERVED, FAT, ROOT, DATA, UNUSED_FAT };

// One area of the volume, in sectors.
struct area {
    area_kind kind;
    std::string name; // "FAT 0", "FAT 1 (unused)"
    u64 first;
    u64 count;
    u32 sector_size; // bytes
    u64 page_origin; // bytes from where pages are counted from to the start of the volume

    [[nodiscard]] u64 offset() const; // bytes
    [[nodiscard]] u64 bytes() const;
    [[nodiscard]] u64 end() const; // bytes

    // Bytes from the page boundary before the area to its start.
    [[nodiscard]] u64 past_page(u32 page_bytes) const {
        return (page_origin + offset()) % page_bytes;
    }
};

// Where the pages of the flash are counted from.
enum class page_origin { DISK, VOLUME };

// The word of an option: "disk" or "volume".
[[nodiscard]] page_origin parse_page_origin(const std::string &word);

// In the order of the medium.
[[nodiscard]] std::vector<area> areas_of(const volume &vol, page_origin from = page_origin::DISK);

// One line: the FAT width, the sizes, and where each area begins.
[[nodiscard]] std::string areas_text(const volume &vol);

} // namespace qvol
