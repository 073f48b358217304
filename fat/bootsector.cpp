// The boot sector and FSInfo sector of a new volume, in memory, and the areas of the volume record.

#include "core/boot_sector.h"

#include "fat/internal.h"

#include <cerrno>

namespace fat {

void set_areas(const core::areas &at) {
    sv->fat_type = at.width;
    sv->fat_size = at.fat_sectors;
    sv->total_sectors = at.total_sectors;
    sv->sector_size = at.sector_size;
    sv->sec_per_clus = at.sectors_per_cluster;
    sv->root_clus = at.root_cluster;
    sv->fat_start = at.fat_start;
    sv->rdir_start = at.root_start;
    sv->data_start = at.data_start;
    sv->num_clusters = at.clusters;
}

int create_pbr(u8 *pbr, fat_format_param *param) {
    if (pbr == nullptr) {
        REPORT("NULL pbr_p!\n\n");
        return -EINVAL;
    }
    const u32 total = core::usable_sectors(sv->vol_size, param->sector_size);
    core::volume_layout layout;
    core::areas areas;
    const int result = lay_out_volume(param, total, &layout, &areas);
    if (result < 0) {
        REPORT("failed to calc_fat_sectors!\n\n");
        return result;
    }
    constexpr u32 LABEL_SIZE = EBR_VOLUME_LABEL.size;
    const auto *label = reinterpret_cast<const u8 *>(param->volume_label);
    const core::boot_request request = {.fats = param->nr_fat,
                                        .root_entries = param->root_entries,
                                        .volume_id = param->volume_id,
                                        .label =
                                            std::span<const u8, LABEL_SIZE>(label, LABEL_SIZE)};
    core::store_boot_sector(pbr, areas, request);
    set_areas(areas);
    return 0;
}

int set_fsinfo(u8 *sector) {
    if (sector == nullptr) {
        REPORT("NULL arg!\n\n");
        return -EINVAL;
    }
    core::store_fsinfo(sector);
    return 0;
}

} // namespace fat
