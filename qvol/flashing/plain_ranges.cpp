#include "qvol/flashing/plain_ranges.h"

#include "qvol/flashing/finished_image.h"
#include "qvol/partitions.h"
#include "qvol/session.h"

#include <algorithm>

namespace qvol {

namespace {

// No value if it is no FAT volume, or one whose areas are not certain.
std::optional<std::vector<byte_range>> ranges_of_volume(const target &where) {
    try {
        volume vol(where, "UTF-8", required::AREAS);
        return vol.contradictions().empty() ? std::optional(needed_ranges(vol)) : std::nullopt;
    } catch (const error &) {
        return std::nullopt;
    }
}

// What must be written of a whole image or of a partition, besides what is no hole.
std::vector<byte_range> ranges_in_holes(const target &where) {
    if (data_ranges(where).empty()) {
        return {};
    }
    return ranges_of_volume(where).value_or(
        std::vector<byte_range>{{where.offset(), where.size()}});
}

} // namespace

std::vector<byte_range> ranges_of_image(const std::string &path) {
    const target image(path, access::READ);
    std::vector<byte_range> ranges = data_ranges(image);
    const auto append = [&ranges](const std::vector<byte_range> &more) {
        ranges.insert(ranges.end(), more.begin(), more.end());
    };
    if (!is_partitioned(image)) {
        append(ranges_in_holes(image));
    } else {
        for (const partition &one : all_partitions(image)) {
            const u64 bytes =
                std::min(one.end(), image.size()) - std::min(one.offset, image.size());
            if (!one.is_container && bytes != 0) {
                append(ranges_in_holes(target(image, path, one.offset, bytes)));
            }
        }
    }
    std::sort(ranges.begin(), ranges.end(),
              [](const byte_range &a, const byte_range &b) { return a.offset < b.offset; });
    return in_blocks(ranges, FLASH_BLOCK_BYTES, image.size());
}

} // namespace qvol
