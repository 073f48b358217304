#include "qvol/areas.h"

#include "fat/internal.h"

#include <fmt/core.h>

namespace qvol {

u64 area::offset() const {
    return first * sv->sector_size;
}

u64 area::bytes() const {
    return count * sv->sector_size;
}

u64 area::end() const {
    return offset() + bytes();
}

std::vector<area> areas_of(const volume &vol) {
    std::vector<area> areas = {
        {area_kind::RESERVED, "reserved", sv->pbr_start, vol.boot().reserved_sectors}};
    for (u32 copy = 0; copy < vol.boot().fat_copies; copy++) {
        areas.push_back({area_kind::FAT, fmt::format("FAT {}", copy),
                         sv->fat_start + u64{copy} * sv->fat_size, sv->fat_size});
    }
    if (sv->fat_type == 16) {
        areas.push_back(
            {area_kind::ROOT, "root directory", sv->rdir_start, sv->data_start - sv->rdir_start});
    }
    areas.push_back(
        {area_kind::DATA, "data", sv->data_start, u64{sv->num_clusters} * sv->sec_per_clus});
    return areas;
}

} // namespace qvol
