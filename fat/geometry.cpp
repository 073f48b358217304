// Geometry: FAT width, FAT size, and the position of each area.
//
// The classic two-step estimate: estimate the cluster count as if every cluster included its FAT
// entries, size the FAT for that count, then count the clusters that remain. With page alignment
// every area before the data is rounded up to whole NAND pages, so the FAT, the root directory and
// the data each begin on a page.

#include "fat/internal.h"

#include <algorithm>
#include <bit>
#include <cerrno>

namespace fat {

namespace {

constexpr const char *REPORTER = "calc_fat_sectors";

// Result of one attempt, besides 0 and -EINVAL.
constexpr int TOO_LARGE_FOR_FAT16 = 1;

constexpr u32 FAT16_MAX_CLUSTERS = 65524;
constexpr u32 FAT32_MAX_CLUSTERS = 268435438; // 0x0FFFFFEE
constexpr u32 FAT16_RESERVED_SECTORS = 1;
constexpr u32 FAT32_RESERVED_SECTORS = 32;
constexpr u32 BYTE_MAX = 0xFF;           // limit of a one-byte field of the boot sector
constexpr u32 WORD_MAX = 0xFFFF;         // limit of a two-byte field
constexpr u32 ROOT_SIZE_MULTIPLE = 1024; // bytes; Intentional: the message states 512

struct geometry {
    u32 fat_size;     // 16 or 32
    u32 reserved;     // sectors
    u32 rdir_sectors; // 0 for FAT32
    u32 fat_sectors;  // sectors of one FAT copy
    s64 data_sectors; // negative if the areas before the data do not fit
    s64 clusters;     // negative in the same case
    u32 max_clusters; // number of clusters that the FAT can describe
};

u32 shift_of(u32 power_of_two) {
    return static_cast<u32>(std::countr_zero(power_of_two));
}

unsigned long long volume_bytes() {
    return sv != nullptr ? sv->vol_size : 0;
}

u32 cluster_bytes(const fat_format_param *param) {
    return param->sec_per_clus * param->sector_size;
}

// Number of sectors that areas are aligned to, 0 without alignment.
u32 page_unit_sectors(const fat_format_param *param) {
    if (param->page_size == 0) {
        return 0;
    }
    const u32 unit = std::max(param->sector_size, param->page_size);
    if (unit % param->sector_size != 0 || unit % param->page_size != 0) {
        report_at(REPORTER, __LINE__, "Can't align to page size(%d): Sector is %d\n",
                  static_cast<int>(param->page_size), static_cast<int>(param->sector_size));
        return 0;
    }
    return unit / param->sector_size;
}

u32 align(u32 sectors, u32 page_unit) {
    return page_unit != 0 ? round_up_to(sectors, page_unit) : sectors;
}

// Sizes the FAT for the data area of `shape` and subtracts all copies from that area.
void size_fat(const fat_format_param *param, u32 page_unit, u32 entry_size, u32 limit,
              geometry *shape) {
    const u64 data_bytes = static_cast<u64>(shape->data_sectors) * param->sector_size;
    const u64 estimate = (data_bytes + 2ULL * entry_size * param->nr_fat) /
                         (cluster_bytes(param) + static_cast<u64>(entry_size) * param->nr_fat);
    // Two more entries: 0 and 1 do not describe clusters.
    const u64 fat_bytes = entry_size * (estimate + 2);
    shape->fat_sectors = align(
        static_cast<u32>((fat_bytes + param->sector_size - 1) >> shift_of(param->sector_size)),
        page_unit);
    shape->data_sectors -= static_cast<s64>(param->nr_fat) * shape->fat_sectors;
    shape->clusters = shape->data_sectors >> shift_of(param->sec_per_clus);
    const u64 entries = static_cast<u64>(shape->fat_sectors) * param->sector_size / entry_size;
    shape->max_clusters = static_cast<u32>(std::min<u64>(entries - 2, limit));
}

int refuse_small_for_fat16(const fat_format_param *param, const geometry &shape) {
    report_bare("Volume size(%llu) is too small to format the volume to FAT16\n", volume_bytes());
    report_bare(
        "Retry to format after enlarge the volume size to larger than (rdir area(%u) + reserved area(%u)) * sector size(%u)\n",
        shape.rdir_sectors, FAT16_RESERVED_SECTORS, param->sector_size);
    return -EINVAL;
}

int refuse_few_for_fat16(const fat_format_param *param, const geometry &shape) {
    report_bare(
        "Cluster size(%u) is too large or volume size(%llu) is too small to format the device to FAT16.\n",
        cluster_bytes(param), volume_bytes());
    report_bare(
        "If you want to format the deivce to FAT16/32, retry to format after reduce the cluster size. Otherwise, retry to format the larger volume.\n");
    report_bare("num_clusters %d data area %d\n", static_cast<int>(shape.clusters),
                static_cast<int>(shape.data_sectors));
    return -EINVAL;
}

int refuse_many_for_fat16(const fat_format_param *param, const geometry &shape) {
    report_bare("Cluster size(%u) is too small to format this to FAT16.\n", cluster_bytes(param));
    report_bare(
        "If you want to format this to FAT16, retry to format after enlarge the cluster size. Otherwise, retry to format the device with FAT32 type.\n");
    report_bare("fat %d max %d num_clusters %d\n", static_cast<int>(shape.fat_sectors),
                static_cast<int>(shape.max_clusters), static_cast<int>(shape.clusters));
    return -EINVAL;
}

int refuse_small_for_fat32(const fat_format_param *param) {
    report_bare("Volume size(%llu) is too small to format the volume to FAT32\n", volume_bytes());
    report_bare(
        "Retry to format after enlarge the volume size to larger than reserved area(%u) * sector size(%u)\n",
        FAT32_RESERVED_SECTORS, param->sector_size);
    return -EINVAL;
}

int refuse_few_for_fat32(const fat_format_param *param, const geometry &shape) {
    report_bare("Cluster size(%u) is too large to format the device to FAT32.\n",
                cluster_bytes(param));
    report_bare(
        "If you want to format the device to FAT32, retry to format after reduce the cluster size\n");
    report_bare("num_clusters %d data area %d\n", static_cast<int>(shape.clusters),
                static_cast<int>(shape.data_sectors));
    return -EINVAL;
}

int refuse_many_for_fat32(const geometry &shape) {
    report_bare(
        "Number of clusters(%u) is over the limitation of maximum cluster counts for FAT32\n",
        static_cast<u32>(shape.clusters));
    report_bare("Retry to format after reduce the cluster size\n");
    report_bare("fat sectors %d max clusters %d data area %d\n",
                static_cast<int>(shape.fat_sectors), static_cast<int>(shape.max_clusters),
                static_cast<int>(shape.data_sectors));
    return -EINVAL;
}

// Returns 0, -EINVAL after a refusal, or TOO_LARGE_FOR_FAT16 if the request did not set the width.
int try_fat16(const fat_format_param *param, u32 total_sectors, u32 page_unit, geometry *shape) {
    const u32 sector_shift = shift_of(param->sector_size);
    *shape = geometry{};
    shape->fat_size = 16;
    const u32 root_bytes = param->root_entries * DENTRY_SIZE;
    shape->rdir_sectors = align((root_bytes + param->sector_size - 1) >> sector_shift, page_unit);
    if ((shape->rdir_sectors << sector_shift) % ROOT_SIZE_MULTIPLE != 0) {
        report_at(REPORTER, __LINE__, "RdirSize is not even multiple of 512Bytes!\n\n");
        return -EINVAL;
    }
    shape->reserved = page_unit != 0 ? page_unit : FAT16_RESERVED_SECTORS;
    shape->data_sectors = static_cast<s64>(total_sectors) - (shape->rdir_sectors + shape->reserved);
    if (shape->data_sectors < 0) {
        return refuse_small_for_fat16(param, *shape);
    }
    size_fat(param, page_unit, FAT16_ENTRY_SIZE, FAT16_MAX_CLUSTERS, shape);
    if (shape->clusters < FAT16_MIN_CLUSTERS) {
        return refuse_few_for_fat16(param, *shape);
    }
    if (shape->clusters <= shape->max_clusters) {
        return 0;
    }
    return param->fat_size == 16 ? refuse_many_for_fat16(param, *shape) : TOO_LARGE_FOR_FAT16;
}

// Returns 0 or -EINVAL after a refusal.
int try_fat32(const fat_format_param *param, u32 total_sectors, u32 page_unit, geometry *shape) {
    *shape = geometry{};
    shape->fat_size = 32;
    shape->reserved = align(FAT32_RESERVED_SECTORS, page_unit);
    shape->data_sectors = static_cast<s64>(total_sectors) - FAT32_RESERVED_SECTORS;
    if (shape->data_sectors < 0) {
        return refuse_small_for_fat32(param);
    }
    size_fat(param, page_unit, FAT32_ENTRY_SIZE, FAT32_MAX_CLUSTERS, shape);
    if (shape->clusters < FAT32_MIN_CLUSTERS) {
        return refuse_few_for_fat32(param, *shape);
    }
    if (shape->clusters > shape->max_clusters) {
        return refuse_many_for_fat32(*shape);
    }
    return 0;
}

// Number of clusters after page alignment has enlarged the reserved area beyond the 32 sectors of
// the estimate.
s64 clusters_left(const fat_format_param *param, const geometry &shape) {
    const s64 moved = static_cast<s64>(shape.reserved) - FAT32_RESERVED_SECTORS;
    return (shape.data_sectors - moved) >> shift_of(param->sec_per_clus);
}

// Whether the boot sector can describe the shape. The command line never leads to the others: a
// number too large for its field, a FAT16 without a root directory, a FAT32 with the cluster count
// of a FAT16.
bool is_describable(const fat_format_param *param, const geometry &shape, u32 root_entries) {
    if (shape.reserved > WORD_MAX || root_entries > WORD_MAX) {
        return false;
    }
    if (shape.fat_size == 16) {
        return shape.fat_sectors <= WORD_MAX && shape.rdir_sectors != 0;
    }
    return clusters_left(param, shape) >= FAT32_MIN_CLUSTERS;
}

} // namespace

u32 round_up_to(u32 x, u32 a) {
    const u32 remainder = x % a;
    if (remainder == 0) {
        return std::max(x, a);
    }
    return x + (a - remainder);
}

bool is_valid_request(const fat_format_param *param) {
    const bool width_known = param->fat_size == 0 || param->fat_size == 16 || param->fat_size == 32;
    const bool sector_known = std::has_single_bit(param->sector_size) &&
                              param->sector_size >= MIN_SECTOR_SIZE &&
                              param->sector_size <= MAX_SECTOR_SIZE;
    const bool cluster_known =
        std::has_single_bit(param->sec_per_clus) && param->sec_per_clus <= MAX_SECTORS_PER_CLUSTER;
    return width_known && sector_known && cluster_known && param->nr_fat >= 1 &&
           param->nr_fat <= BYTE_MAX && param->root_entries <= WORD_MAX &&
           (param->page_size % param->sector_size != 0 || // formatted without alignment
            param->page_size / param->sector_size <= WORD_MAX);
}

void refuse_request(const char *function, const fat_format_param *param) {
    report_at(
        function, __LINE__,
        "Invalid format request: FAT%u, %u FATs, %u sectors of %u bytes per cluster, %u root entries, page size %u\n\n",
        param->fat_size, param->nr_fat, param->sec_per_clus, param->sector_size,
        param->root_entries, param->page_size);
}

int calc_fat_sectors(fat_format_param *param, u32 total_sectors, u32 *fat_sectors,
                     u32 *num_clusters) {
    if (!is_valid_request(param)) {
        refuse_request(__func__, param);
        return -EINVAL;
    }
    const u32 page_unit = page_unit_sectors(param);
    geometry shape{};
    int result = TOO_LARGE_FOR_FAT16;
    if (param->fat_size != 32) {
        result = try_fat16(param, total_sectors, page_unit, &shape);
    }
    if (result == TOO_LARGE_FOR_FAT16) {
        result = try_fat32(param, total_sectors, page_unit, &shape);
    }
    if (result == -EINVAL) {
        return result;
    }
    const u32 root_entries = (shape.rdir_sectors << shift_of(param->sector_size)) / DENTRY_SIZE;
    if (!is_describable(param, shape, root_entries)) {
        refuse_request(__func__, param);
        return -EINVAL;
    }
    param->fat_size = shape.fat_size;
    param->nr_rsvd_sec = shape.reserved;
    param->root_entries = root_entries;
    *fat_sectors = shape.fat_sectors;
    *num_clusters = static_cast<u32>(shape.clusters);
    if (result < 0) {
        report_bare("assertion failed %s:%d\n", __func__, __LINE__);
        return -1;
    }
    return 0;
}

} // namespace fat
