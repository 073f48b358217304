#include "core/boot_sector.h"

#include "core/geometry.h"

#include <bit>
#include <cstring>

namespace core {

namespace {

constexpr u32 SECTORS_PER_TRACK = 8;
constexpr u32 HEADS = 1;
constexpr u32 NEW_FSINFO_SECTOR = 1;
constexpr u32 NEW_BACKUP_SECTOR = 6;
constexpr u32 MAX_TOTAL_SECTORS_16 = 0xFFFF;

// ---- reading ----------------------------------------------------------------------------------

// Stores the sizes and the total. False if a size is invalid or missing.
bool read_sizes(const boot_numbers &boot, width_rule rule, areas *at) {
    if (!is_sector_size(boot.sector_size) || boot.sectors_per_cluster == 0) {
        return false;
    }
    at->sector_size = boot.sector_size;
    at->sectors_per_cluster = boot.sectors_per_cluster;
    if (!boot.has_fat32_sizes()) {
        at->fat_sectors = boot.fat_size_16;
        at->total_sectors = boot.either_total();
        return true;
    }
    at->fat_sectors = boot.fat_size_32;
    const bool may_be_small = rule == width_rule::FAT_SIZE && boot.total_32 == 0;
    at->total_sectors = may_be_small ? boot.total_16 : boot.total_32;
    return at->fat_sectors != 0 && at->total_sectors != 0;
}

// False if the areas before the data are larger than the volume.
bool count_clusters(const boot_numbers &boot, areas *at) {
    const u64 front = boot.sectors_to_data();
    if (front > at->total_sectors) {
        return false;
    }
    at->clusters = (at->total_sectors - static_cast<u32>(front)) / at->sectors_per_cluster;
    return true;
}

// The copy of the FAT to read: the first one also if the active one does not exist.
u32 fat_to_read(const boot_numbers &boot, width_rule rule) {
    return rule == width_rule::FAT_SIZE && boot.active_fat() < boot.fats ? boot.active_fat() : 0;
}

void place_areas(const boot_numbers &boot, width_rule rule, areas *at) {
    at->fat_start = boot.reserved_sectors + fat_to_read(boot, rule) * at->fat_sectors;
    at->data_start = static_cast<u32>(boot.sectors_to_data());
    at->root_cluster = 0;
    at->root_start = static_cast<u32>(boot.sectors_to_root_area());
    if (at->width == 32) {
        at->root_cluster = boot.root_cluster;
        at->root_start =
            at->data_start + (at->root_cluster - FIRST_DATA_CLUSTER) * at->sectors_per_cluster;
    }
}

// ---- storing ----------------------------------------------------------------------------------

void store_jump(u8 *boot, bool is_fat32) {
    u8 *jump = boot + PBR_JUMP.offset;
    jump[0] = 0xEB; // jmp short past the records, nop
    jump[1] = is_fat32 ? 0x58 : 0x3C;
    jump[2] = 0x90;
}

void store_common_block(u8 *boot, const areas &at, const boot_request &request) {
    std::memcpy(boot + PBR_OEM_NAME.offset, request.oem_name.data(), request.oem_name.size());
    store(boot, PBR_BYTES_PER_SECTOR, at.sector_size);
    store(boot, PBR_SECTORS_PER_CLUSTER, at.sectors_per_cluster);
    store(boot, PBR_RESERVED_SECTORS, at.fat_start);
    store(boot, PBR_NUMBER_OF_FATS, request.fats);
    store(boot, PBR_MEDIA, request.media);
    store(boot, PBR_SECTORS_PER_TRACK, SECTORS_PER_TRACK);
    store(boot, PBR_HEADS, HEADS);
    store(boot, PBR_HIDDEN_SECTORS, request.hidden_sectors);
}

void store_root_area_block(u8 *boot, const areas &at, u32 root_entries) {
    store(boot, PBR_ROOT_ENTRIES, root_entries);
    store(boot, PBR_FAT_SIZE_16, at.fat_sectors);
    if (at.total_sectors <= MAX_TOTAL_SECTORS_16) {
        store(boot, PBR_TOTAL_SECTORS_16, at.total_sectors);
    } else {
        store(boot, PBR_TOTAL_SECTORS_32, at.total_sectors);
    }
}

void store_fat32_block(u8 *boot, const areas &at) {
    store(boot, PBR_TOTAL_SECTORS_32, at.total_sectors);
    store(boot, PBR32_FAT_SIZE, at.fat_sectors);
    store(boot, PBR32_ROOT_CLUSTER, at.root_cluster);
    store(boot, PBR32_FSINFO_SECTOR, NEW_FSINFO_SECTOR);
    store(boot, PBR32_BACKUP_SECTOR, at.fat_start > NEW_BACKUP_SECTOR ? NEW_BACKUP_SECTOR : 0);
}

void store_extended_record(u8 *record, u32 width, const boot_request &request) {
    store(record, EBR_DRIVE_NUMBER, 0);
    store(record, EBR_BOOT_SIGNATURE, EXTENDED_BOOT_SIGNATURE);
    store(record, EBR_VOLUME_ID, request.volume_id);
    std::memcpy(record + EBR_VOLUME_LABEL.offset, request.label.data(), request.label.size());
    store_text(record, EBR_TYPE, width == 12 ? "FAT12   " : width == 32 ? "FAT32   " : "FAT16   ");
}

} // namespace

boot_numbers::boot_numbers(const u8 *boot)
    : sector_size(load(boot, PBR_BYTES_PER_SECTOR)),
      sectors_per_cluster(load(boot, PBR_SECTORS_PER_CLUSTER)),
      reserved_sectors(load(boot, PBR_RESERVED_SECTORS)), fats(load(boot, PBR_NUMBER_OF_FATS)),
      root_entries(load(boot, PBR_ROOT_ENTRIES)), total_16(load(boot, PBR_TOTAL_SECTORS_16)),
      total_32(load(boot, PBR_TOTAL_SECTORS_32)), media(load(boot, PBR_MEDIA)),
      fat_size_16(load(boot, PBR_FAT_SIZE_16)), fat_size_32(load(boot, PBR32_FAT_SIZE)),
      extended_flags(load(boot, PBR32_EXTENDED_FLAGS)),
      root_cluster(load(boot, PBR32_ROOT_CLUSTER)), fsinfo_sector(load(boot, PBR32_FSINFO_SECTOR)),
      backup_sector(load(boot, PBR32_BACKUP_SECTOR)) {}

u64 boot_numbers::sectors_to_root_area() const {
    const u32 fat_size = fat_size_16 != 0 ? fat_size_16 : fat_size_32;
    return reserved_sectors + static_cast<u64>(fat_size) * fats;
}

u64 boot_numbers::sectors_to_data() const {
    return sectors_to_root_area() + div_ceil(root_entries * DENTRY_SIZE, sector_size);
}

bool is_boot_signature(const u8 *boot) {
    return load(boot, PBR_SIGNATURE) == BOOT_SIGNATURE;
}

bool is_sector_size(u32 bytes) {
    return std::has_single_bit(bytes) && bytes >= MIN_SECTOR_SIZE && bytes <= MAX_SECTOR_SIZE;
}

fault read_areas(const boot_numbers &boot, width_rule rule, areas *at) {
    if (!read_sizes(boot, rule, at) || !count_clusters(boot, at)) {
        return fault::BOOT_NUMBERS;
    }
    const bool by_count = rule == width_rule::CLUSTER_COUNT;
    if (at->clusters < (by_count ? FAT16_MIN_CLUSTERS : 1)) {
        return fault::FEW_CLUSTERS;
    }
    const bool is_fat32 = by_count ? at->clusters >= FAT32_MIN_CLUSTERS : boot.has_fat32_sizes();
    if (!is_fat32 && (boot.root_entries == 0 || at->clusters >= FAT32_MIN_CLUSTERS)) {
        return fault::BOOT_NUMBERS;
    }
    at->width = is_fat32 ? 32 : at->clusters < FAT16_MIN_CLUSTERS ? 12 : 16;
    place_areas(boot, rule, at);
    return fault::NONE;
}

void store_boot_sector(u8 *boot, const areas &at, const boot_request &request) {
    const bool is_fat32 = at.width == 32;
    store_jump(boot, is_fat32);
    store_common_block(boot, at, request);
    if (is_fat32) {
        store_fat32_block(boot, at);
    } else {
        store_root_area_block(boot, at, request.root_entries);
    }
    store_extended_record(boot + (is_fat32 ? EBR_OFFSET_FAT32 : EBR_OFFSET_FAT16), at.width,
                          request);
    store(boot, PBR_SIGNATURE, BOOT_SIGNATURE);
}

void store_fsinfo(u8 *sector) {
    store(sector, FSINFO_LEAD, FSINFO_LEAD_SIGNATURE);
    store(sector, FSINFO_STRUCTURE, FSINFO_STRUCTURE_SIGNATURE);
    store(sector, FSINFO_FREE_COUNT, FSINFO_UNKNOWN);
    store(sector, FSINFO_NEXT_FREE, FSINFO_UNKNOWN);
    store(sector, FSINFO_TRAIL, FSINFO_TRAIL_SIGNATURE);
}

void sign_sector_end(u8 *boot, u32 sector_size) {
    if (sector_size > PBR_SIZE) {
        store16(boot + sector_size - PBR_SIGNATURE.size, BOOT_SIGNATURE);
    }
}

} // namespace core
