// The boot sector and FSInfo sector of a new volume, in memory.

#include "fat/internal.h"

#include <bit>
#include <cerrno>
#include <cstring>

namespace fat {

namespace {

constexpr u32 ROOT_CLUSTER = 2; // of a new FAT32 volume
constexpr u32 SECTORS_PER_TRACK = 8;
constexpr u32 HEADS = 1;
constexpr u32 FSINFO_SECTOR = 1;
constexpr u32 BACKUP_SECTOR = 6;
constexpr u32 MAX_TOTAL_SECTORS_16 = 0xFFFF;

// Intentional: an odd last sector is not part of the file system.
u32 usable_sectors(u64 volume_bytes, u32 sector_size) {
    return static_cast<u32>(volume_bytes >> std::countr_zero(sector_size)) & ~1U;
}

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
    store(pbr, PBR32_ROOT_CLUSTER, ROOT_CLUSTER);
    store(pbr, PBR32_FSINFO_SECTOR, FSINFO_SECTOR);
    store(pbr, PBR32_BACKUP_SECTOR, param->nr_rsvd_sec > BACKUP_SECTOR ? BACKUP_SECTOR : 0);
}

void fill_volume_record(const fat_format_param *param, u32 total, u32 fat_sectors) {
    sv->fat_type = param->fat_size;
    sv->fat_size = fat_sectors;
    sv->total_sectors = total;
    sv->sector_size = param->sector_size;
    sv->sec_per_clus = param->sec_per_clus;
    sv->fat_start = param->nr_rsvd_sec;
    const u32 fats_end = param->nr_rsvd_sec + fat_sectors * param->nr_fat;
    if (param->fat_size == 32) {
        sv->root_clus = ROOT_CLUSTER;
        sv->data_start = fats_end;
        sv->rdir_start = sv->data_start + (sv->root_clus - FIRST_DATA_CLUSTER) * sv->sec_per_clus;
    } else {
        sv->root_clus = 0;
        sv->rdir_start = fats_end;
        sv->data_start = fats_end + div_ceil(param->root_entries * DENTRY_SIZE, param->sector_size);
    }
    sv->num_clusters = (total - sv->data_start) / param->sec_per_clus;
}

} // namespace

int create_pbr(u8 *pbr, fat_format_param *param) {
    if (pbr == nullptr) {
        REPORT("NULL pbr_p!\n\n");
        return -EINVAL;
    }
    const u32 total = usable_sectors(sv->vol_size, param->sector_size);
    u32 fat_sectors = 0;
    u32 clusters = 0;
    const int result = calc_fat_sectors(param, total, &fat_sectors, &clusters);
    if (result < 0) {
        REPORT("failed to calc_fat_sectors!\n\n");
        return result;
    }
    const bool is_fat32 = param->fat_size == 32;
    put_jump_and_name(pbr, is_fat32);
    put_common_block(pbr, param);
    if (is_fat32) {
        put_fat32_block(pbr, param, total, fat_sectors);
        put_extended_record(pbr + EBR_OFFSET_FAT32, param);
    } else {
        put_fat16_block(pbr, param, total, fat_sectors);
        put_extended_record(pbr + EBR_OFFSET_FAT16, param);
    }
    store(pbr, PBR_SIGNATURE, BOOT_SIGNATURE);
    fill_volume_record(param, total, fat_sectors);
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
