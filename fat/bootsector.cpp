// The boot sector and FSInfo sector of a new volume, in memory.

#include "fat/internal.h"

#include <cerrno>
#include <cstring>

namespace fat {

namespace {

constexpr u32 SECTORS_PER_TRACK = 8;
constexpr u32 HEADS = 1;
constexpr u32 FSINFO_SECTOR = 1;
constexpr u32 BACKUP_SECTOR = 6;
constexpr u32 MAX_TOTAL_SECTORS_16 = 0xFFFF;

void put_jump_and_name(u8 *pbr, bool is_fat32) {
    u8 *jump = pbr + PBR_JUMP.offset;
    jump[0] = 0xEB; // jmp short past the records, nop
    jump[1] = is_fat32 ? 0x58 : 0x3C;
    jump[2] = 0x90;
    store_text(pbr, PBR_OEM_NAME, "Torvik  ");
}

void put_extended_record(u8 *ebr, const fat_format_param *param) {
    store(ebr, EBR_DRIVE_NUMBER, 0);
    store(ebr, EBR_BOOT_SIGNATURE, EXTENDED_BOOT_SIGNATURE);
    store(ebr, EBR_VOLUME_ID, param->volume_id);
    std::memcpy(ebr + EBR_VOLUME_LABEL.offset, param->volume_label, EBR_VOLUME_LABEL.size);
    if (param->fat_size == 16) {
        store_text(ebr, EBR_TYPE, "FAT16   ");
    } else {
        store_text(ebr, EBR_TYPE, "FAT32   ");
    }
}

void put_common_block(u8 *pbr, const fat_format_param *param) {
    store(pbr, PBR_BYTES_PER_SECTOR, param->sector_size);
    store(pbr, PBR_SECTORS_PER_CLUSTER, param->sec_per_clus);
    store(pbr, PBR_RESERVED_SECTORS, param->nr_rsvd_sec);
    store(pbr, PBR_NUMBER_OF_FATS, param->nr_fat);
    store(pbr, PBR_MEDIA, MEDIA_FIXED);
    store(pbr, PBR_SECTORS_PER_TRACK, SECTORS_PER_TRACK);
    store(pbr, PBR_HEADS, HEADS);
    store(pbr, PBR_HIDDEN_SECTORS, 0);
}

void put_fat16_block(u8 *pbr, const fat_format_param *param, u32 total, u32 fat_sectors) {
    store(pbr, PBR_ROOT_ENTRIES, param->root_entries);
    store(pbr, PBR_FAT_SIZE_16, fat_sectors);
    if (total <= MAX_TOTAL_SECTORS_16) {
        store(pbr, PBR_TOTAL_SECTORS_16, total);
    } else {
        store(pbr, PBR_TOTAL_SECTORS_32, total);
    }
}

void put_fat32_block(u8 *pbr, const fat_format_param *param, u32 total, u32 fat_sectors) {
    store(pbr, PBR_TOTAL_SECTORS_32, total);
    store(pbr, PBR32_FAT_SIZE, fat_sectors);
    store(pbr, PBR32_ROOT_CLUSTER, NEW_ROOT_CLUSTER);
    store(pbr, PBR32_FSINFO_SECTOR, FSINFO_SECTOR);
    store(pbr, PBR32_BACKUP_SECTOR, param->nr_rsvd_sec > BACKUP_SECTOR ? BACKUP_SECTOR : 0);
}

void fill_volume_record(const core::areas &at) {
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

} // namespace

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
    const bool is_fat32 = param->fat_size == 32;
    put_jump_and_name(pbr, is_fat32);
    put_common_block(pbr, param);
    if (is_fat32) {
        put_fat32_block(pbr, param, total, areas.fat_sectors);
        put_extended_record(pbr + EBR_OFFSET_FAT32, param);
    } else {
        put_fat16_block(pbr, param, total, areas.fat_sectors);
        put_extended_record(pbr + EBR_OFFSET_FAT16, param);
    }
    store(pbr, PBR_SIGNATURE, BOOT_SIGNATURE);
    fill_volume_record(areas);
    return 0;
}

int set_fsinfo(u8 *sector) {
    if (sector == nullptr) {
        REPORT("NULL arg!\n\n");
        return -EINVAL;
    }
    store(sector, FSINFO_LEAD, FSINFO_LEAD_SIGNATURE);
    store(sector, FSINFO_STRUCTURE, FSINFO_STRUCTURE_SIGNATURE);
    store(sector, FSINFO_FREE_COUNT, FSINFO_UNKNOWN);
    store(sector, FSINFO_NEXT_FREE, FSINFO_UNKNOWN);
    store(sector, FSINFO_TRAIL, FSINFO_TRAIL_SIGNATURE);
    return 0;
}

} // namespace fat
