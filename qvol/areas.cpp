#include "qvol/areas.h"

#include <fmt/core.h>

namespace qvol {

u64 area::offset() const {
    return first * sector_size;
}

u64 area::bytes() const {
    return count * sector_size;
}

u64 area::end() const {
    return offset() + bytes();
}

page_origin parse_page_origin(const std::string &word) {
    return word == "volume" ? page_origin::VOLUME : page_origin::DISK;
}

std::vector<area> areas_of(const volume &vol, page_origin from) {
    const u64 origin = from == page_origin::DISK ? vol.where().offset_on_disk() : 0;
    const core::areas &at = vol.on().at;
    const boot_fields &boot = vol.boot();
    std::vector<area> areas;
    const auto add = [&](area_kind kind, std::string name, u64 first, u64 count) {
        areas.push_back({kind, std::move(name), first, count, at.sector_size, origin});
    };
    add(area_kind::RESERVED, "reserved", 0, boot.reserved_sectors);
    for (u32 copy = 0; copy < boot.fat_copies; copy++) {
        const bool is_used = boot.active_fat.value_or(copy) == copy;
        add(is_used ? area_kind::FAT : area_kind::UNUSED_FAT,
            fmt::format("FAT {}{}", copy, is_used ? "" : " (unused)"),
            boot.reserved_sectors + u64{copy} * at.fat_sectors, at.fat_sectors);
    }
    if (!vol.on().is_wide()) {
        add(area_kind::ROOT, "root directory", at.root_start, at.data_start - at.root_start);
    }
    add(area_kind::DATA, "data", at.data_start, u64{at.clusters} * at.sectors_per_cluster);
    return areas;
}

std::string areas_text(const volume &vol) {
    const core::areas &at = vol.on().at;
    std::string text = fmt::format(
        "FAT{}, {} sectors of {} bytes, {} clusters of {} sectors; first sectors:", at.width,
        at.total_sectors, at.sector_size, at.clusters, at.sectors_per_cluster);
    for (const area &one : areas_of(vol)) {
        text += fmt::format(" {} {}", one.name, one.first);
    }
    return text;
}

} // namespace qvol
