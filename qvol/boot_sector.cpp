#include "qvol/boot_sector.h"

#include "fat/internal.h"
#include "qvol/sectors.h"

#include <algorithm>
#include <bit>

#include <fmt/format.h>

namespace qvol {

namespace {

constexpr u32 NO_SECTOR = 0xFFFF; // the same as 0
constexpr u32 MIRRORING_OFF = 0x80;
constexpr u32 ACTIVE_FAT_MASK = 0x0F;
constexpr u32 FAT32_MAX_CLUSTERS = core::FAT32_BAD - core::FIRST_DATA_CLUSTER;

struct boot_numbers {
    u32 sector_bytes;
    u32 cluster_sectors;
    u32 reserved;
    u32 fat_copies;
    u32 root_entries;
    u32 total_16;
    u32 total_32;
    u32 fat_size_16;
    u32 fat_size_32;

    explicit boot_numbers(const u8 *boot)
        : sector_bytes(core::load(boot, core::PBR_BYTES_PER_SECTOR)),
          cluster_sectors(core::load(boot, core::PBR_SECTORS_PER_CLUSTER)),
          reserved(core::load(boot, core::PBR_RESERVED_SECTORS)),
          fat_copies(core::load(boot, core::PBR_NUMBER_OF_FATS)),
          root_entries(core::load(boot, core::PBR_ROOT_ENTRIES)),
          total_16(core::load(boot, core::PBR_TOTAL_SECTORS_16)),
          total_32(core::load(boot, core::PBR_TOTAL_SECTORS_32)),
          fat_size_16(core::load(boot, core::PBR_FAT_SIZE_16)),
          fat_size_32(core::load(boot, core::PBR32_FAT_SIZE)) {}

    // The layout by the rule of other systems, where the cluster count only decides between FAT12
    // and FAT16.
    [[nodiscard]] bool has_fat32_layout() const {
        return fat_size_16 == 0;
    }

    // No value if the numbers do not describe a volume.
    [[nodiscard]] std::optional<u64> clusters() const {
        const u32 fat_size = has_fat32_layout() ? fat_size_32 : fat_size_16;
        const bool is_32_first = has_fat32_layout() && total_32 != 0;
        const u64 total = is_32_first || total_16 == 0 ? total_32 : total_16;
        if (!std::has_single_bit(sector_bytes) || sector_bytes < core::MIN_SECTOR_SIZE ||
            sector_bytes > core::MAX_SECTOR_SIZE || cluster_sectors == 0 || fat_size == 0) {
            return std::nullopt;
        }
        const u64 root_sectors = core::div_ceil(root_entries * core::DENTRY_SIZE, sector_bytes);
        const u64 fat_sectors = u64{fat_size} * fat_copies;
        const u64 areas = fat_sectors + reserved + root_sectors;
        return areas <= total ? std::optional((total - areas) / cluster_sectors) : std::nullopt;
    }
};

std::string unsupported_fat32(u64 clusters, u32 root_entries) {
    if (clusters > FAT32_MAX_CLUSTERS) {
        return fmt::format(
            "has a boot sector that contradicts itself: it has {} clusters, FAT32 has "
            "at most {}",
            clusters, FAT32_MAX_CLUSTERS);
    }
    if (clusters >= core::FAT32_MIN_CLUSTERS) {
        return "";
    }
    if (root_entries != 0) {
        return fmt::format("has a boot sector that contradicts itself: {} clusters are FAT16, a "
                           "16-bit FAT size of 0 is FAT32",
                           clusters);
    }
    return fmt::format("is a FAT32 volume with {} clusters; FAT32 with fewer than {} clusters is "
                       "not supported yet",
                       clusters, core::FAT32_MIN_CLUSTERS);
}

std::string unsupported_fat16(u64 clusters, const boot_numbers &boot) {
    if (clusters >= core::FAT32_MIN_CLUSTERS) {
        return fmt::format("has a boot sector that contradicts itself: {} clusters are FAT32, a "
                           "16-bit FAT size of {} is FAT16",
                           clusters, boot.fat_size_16);
    }
    if (clusters < core::FAT16_MIN_CLUSTERS) {
        return fmt::format("is a FAT12 volume with {} clusters; fewer than {} clusters are not "
                           "supported",
                           clusters, core::FAT16_MIN_CLUSTERS);
    }
    if (boot.root_entries == 0) {
        return fmt::format(
            "has a boot sector that contradicts itself: {} clusters are FAT16, 0 root "
            "entries are FAT32",
            clusters);
    }
    return "";
}

// ---- contradictions ----

using contradictions = std::vector<contradiction>;

void compare_sizes(const boot_numbers &boot, contradictions *found) {
    if (boot.total_16 != 0 && boot.total_32 != 0 && boot.total_16 != boot.total_32) {
        found->push_back(
            {contradiction_kind::FIELDS,
             fmt::format("the 16-bit total is {} sectors and the 32-bit total is {}, should be "
                         "equal, or one of them 0",
                         boot.total_16, boot.total_32)});
    }
    if (!std::has_single_bit(boot.cluster_sectors)) {
        found->push_back({contradiction_kind::FIELDS,
                          fmt::format("a cluster has {} sectors, should be a power of two",
                                      boot.cluster_sectors)});
    }
    if (boot.reserved == 0) {
        found->push_back({contradiction_kind::FIELDS,
                          "the volume has 0 reserved sectors, should be at least 1 for the boot "
                          "sector"});
    }
    if (boot.fat_copies == 0) {
        found->push_back(
            {contradiction_kind::FIELDS, "the volume has 0 FAT copies, should be at least 1"});
    }
}

void compare_fat_size(contradictions *found) {
    const u32 entry_bytes = sv->fat_type / 8;
    const u64 entries = u64{sv->fat_size} * sv->sector_size / entry_bytes;
    const u64 wanted = u64{sv->num_clusters} + core::FIRST_DATA_CLUSTER;
    if (entries < wanted) {
        found->push_back({contradiction_kind::FAT_SIZE,
                          fmt::format("the last cluster of the FAT is {}, should be at least {}",
                                      entries - 1, wanted - 1)});
    }
}

void compare_device(u64 device_bytes, contradictions *found) {
    const u64 device_sectors = device_bytes / sv->sector_size;
    if (device_sectors < sv->total_sectors) {
        found->push_back(
            {contradiction_kind::FIELDS,
             fmt::format("the volume has {} sectors, should have at most {} on this device",
                         sv->total_sectors, device_sectors)});
    }
}

void compare_root(const boot_numbers &boot, contradictions *found) {
    if (boot.root_entries != 0) {
        found->push_back(
            {contradiction_kind::FIELDS,
             fmt::format("a FAT32 volume has {} root entries, should be 0", boot.root_entries)});
    }
    const u64 last = u64{sv->num_clusters} + core::FIRST_DATA_CLUSTER - 1;
    if (sv->root_clus < core::FIRST_DATA_CLUSTER || sv->root_clus > last) {
        found->push_back({contradiction_kind::FIELDS,
                          fmt::format("the first cluster of the root directory is {}, should be "
                                      "{} to {}",
                                      sv->root_clus, core::FIRST_DATA_CLUSTER, last)});
    }
}

void compare_active_fat(const u8 *boot, u32 fat_copies, contradictions *found) {
    const u32 flags = core::load(boot, core::PBR32_EXTENDED_FLAGS);
    const u32 active = (flags & MIRRORING_OFF) != 0 ? flags & ACTIVE_FAT_MASK : 0;
    if (active >= fat_copies && active != 0) {
        found->push_back(
            {contradiction_kind::FIELDS,
             fmt::format("the active FAT copy is {}, should be less than {}, the number of copies",
                         active, fat_copies)});
    } else if (active != 0) {
        found->push_back(
            {contradiction_kind::ACTIVE_FAT,
             fmt::format("the active FAT copy is {}, should be 0: others are not supported",
                         active)});
    }
}

// Fields that determine the locations of all areas.
constexpr core::field GEOMETRY_FIELDS[] = {
    core::PBR_BYTES_PER_SECTOR, core::PBR_SECTORS_PER_CLUSTER, core::PBR_RESERVED_SECTORS,
    core::PBR_NUMBER_OF_FATS,   core::PBR_ROOT_ENTRIES,        core::PBR_TOTAL_SECTORS_16,
    core::PBR_FAT_SIZE_16,      core::PBR_TOTAL_SECTORS_32,    core::PBR32_FAT_SIZE,
    core::PBR32_ROOT_CLUSTER,   core::PBR32_FSINFO_SECTOR,     core::PBR32_BACKUP_SECTOR,
};

bool is_boot_sector(const u8 *sector) {
    const u32 size = core::load(sector, core::PBR_BYTES_PER_SECTOR);
    return core::load(sector, core::PBR_SIGNATURE) == core::BOOT_SIGNATURE &&
           size >= core::MIN_SECTOR_SIZE && size <= core::MAX_SECTOR_SIZE &&
           core::load(sector, core::PBR_SECTORS_PER_CLUSTER) != 0;
}

bool have_same_areas(const u8 *boot, const u8 *backup) {
    return std::all_of(std::begin(GEOMETRY_FIELDS), std::end(GEOMETRY_FIELDS),
                       [&](const core::field &field) {
                           return core::load(boot, field) == core::load(backup, field);
                       });
}

void compare_backup(const u8 *boot, u32 sector, contradictions *found) {
    const std::vector<u8> backup = read_extent(sector, 1);
    if (is_boot_sector(backup.data()) && !have_same_areas(boot, backup.data())) {
        found->push_back(
            {contradiction_kind::GEOMETRY,
             fmt::format("the boot sector and its backup in sector {} describe different areas",
                         sector)});
    }
}

void compare_reserved_sectors(const u8 *boot, u32 reserved, contradictions *found) {
    const u32 backup = core::load(boot, core::PBR32_BACKUP_SECTOR);
    const u32 fsinfo = core::load(boot, core::PBR32_FSINFO_SECTOR);
    if (is_sector_given(backup) && backup >= reserved) {
        found->push_back({contradiction_kind::BACKUP_LOCATION,
                          fmt::format("the backup boot sector is in sector {}, should be in a "
                                      "reserved sector (below {})",
                                      backup, reserved)});
    } else if (is_sector_given(backup) && backup == fsinfo) {
        found->push_back(
            {contradiction_kind::FIELDS,
             fmt::format("FSInfo and the backup boot sector are both in sector {}", backup)});
    } else if (is_sector_given(backup)) {
        compare_backup(boot, backup, found);
    }
    if (is_sector_given(fsinfo) && fsinfo >= reserved) {
        found->push_back(
            {contradiction_kind::FSINFO_LOCATION,
             fmt::format("FSInfo is in sector {}, should be in a reserved sector (below {})",
                         fsinfo, reserved)});
    }
}

} // namespace

bool is_sector_given(u32 sector) {
    return sector != 0 && sector != NO_SECTOR;
}

std::string unsupported_volume(std::span<const u8> boot) {
    const boot_numbers numbers(boot.data());
    const std::optional<u64> clusters = numbers.clusters();
    if (core::load(boot.data(), core::PBR_SIGNATURE) != core::BOOT_SIGNATURE || !clusters) {
        return "";
    }
    return numbers.has_fat32_layout() ? unsupported_fat32(*clusters, numbers.root_entries)
                                      : unsupported_fat16(*clusters, numbers);
}

std::vector<contradiction> contradictions_of(std::span<const u8> boot,
                                             std::optional<u64> device_bytes) {
    const boot_numbers numbers(boot.data());
    contradictions found;
    compare_sizes(numbers, &found);
    if (numbers.fat_copies != 0) {
        compare_fat_size(&found);
    }
    if (device_bytes) {
        compare_device(*device_bytes, &found);
    }
    if (sv->fat_type == 32) {
        compare_root(numbers, &found);
        compare_active_fat(boot.data(), numbers.fat_copies, &found);
        compare_reserved_sectors(boot.data(), numbers.reserved, &found);
    }
    return found;
}

} // namespace qvol
