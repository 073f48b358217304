// Single entries of the first FAT of the open volume.

#include "fat/internal.h"

#include <cerrno>

namespace fat {

namespace {

u32 end_of_chain() {
    return sv->fat_type == 32 ? FAT32_END : FAT16_END;
}

u32 bad_cluster() {
    return sv->fat_type == 32 ? FAT32_BAD : FAT16_BAD;
}

} // namespace

int fat_read_entry(u32 cluster, u32 *value) {
    if (sv == nullptr || sv->sector_size == 0 || value == nullptr) {
        REPORT("Invalid input: sector_size(%d) n_clu(%d)\n",
               sv == nullptr ? 0 : static_cast<int>(sv->sector_size), static_cast<int>(cluster));
        return -EINVAL;
    }
    if (sv->fat_type != 16 && sv->fat_type != 32) {
        REPORT("Invalid FAT type\n\n");
        return -EINVAL;
    }
    const heap_ptr<u8> sector = zeroed_bytes(sv->sector_size);
    if (sector == nullptr) {
        REPORT("cannot allocate FAT\n\n");
        return -ENOMEM;
    }
    const u32 entry_size = sv->fat_type == 16 ? FAT16_ENTRY_SIZE : FAT32_ENTRY_SIZE;
    const u32 position = cluster * entry_size;
    if (read_sectors(sector.get(), sv->fat_start + position / sv->sector_size, 1) != 1) {
        REPORT("cannot read FAT\n\n");
        return -EIO;
    }
    const u8 *entry = sector.get() + position % sv->sector_size;
    *value = entry_size == FAT16_ENTRY_SIZE ? load16(entry) : load32(entry) & FAT32_VALUE_MASK;
    return 0;
}

int fat_read_clus(u32 cluster) {
    if (cluster < FIRST_DATA_CLUSTER || cluster >= sv->num_clusters + 2) {
        REPORT("Invalid arg!\n\n");
        return -EINVAL;
    }
    u32 value = FAT_FREE;
    const int result = fat_read_entry(cluster, &value);
    if (result < 0) {
        return result;
    }
    if (value == FAT_FREE || value >= end_of_chain()) {
        return static_cast<int>(value);
    }
    if (value < FIRST_DATA_CLUSTER || value >= sv->num_clusters + 2 || value == bad_cluster()) {
        REPORT("Invalid cluster!\n\n");
        return -EINVAL;
    }
    return static_cast<int>(value);
}

} // namespace fat
