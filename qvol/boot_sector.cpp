#include "qvol/boot_sector.h"

#include "core/boot_sector.h"
#include "core/geometry.h"
#include "qvol/sectors.h"

#include <algorithm>
#include <bit>

#include <fmt/format.h>

namespace qvol {

namespace {

constexpr u32 NO_SECTOR = 0xFFFF; // the same as 0
constexpr u32 FAT32_MAX_CLUSTERS = core::FAT32_BAD - core::FIRST_DATA_CLUSTER;

// ---- sectors that describe no volume ----

// The field that counts of the two with the total.
const core::field &total_field(const core::boot_numbers &boot) {
    const bool is_32_first = boot.has_fat32_sizes() && boot.total_32 != 0;
    return is_32_first || boot.total_16 == 0 ? core::PBR_TOTAL_SECTORS_32
                                             : core::PBR_TOTAL_SECTORS_16;
}

std::string invalid_sizes(const core::boot_numbers &boot) {
    if (!core::is_sector_size(boot.sector_size)) {
        return fmt::format("{} is {}, should be 512, 1024, 2048 or 4096",
                           core::PBR_BYTES_PER_SECTOR.name, boot.sector_size);
    }
    if (boot.sectors_per_cluster == 0) {
        return fmt::format("{} is 0, should be a power of two", core::PBR_SECTORS_PER_CLUSTER.name);
    }
    if (boot.has_fat32_sizes() && boot.fat_size_32 == 0) {
        return fmt::format("{} and {} are 0, one of them should be at least 1",
                           core::PBR_FAT_SIZE_16.name, core::PBR32_FAT_SIZE.name);
    }
    return "";
}

// The parts show which field is wrong: often it is not the total.
std::string too_small_total(const core::boot_numbers &boot, u32 total) {
    const u64 least = boot.sectors_to_data() + boot.sectors_per_cluster;
    if (total >= least) {
        return "";
    }
    return fmt::format("{} is {}, should be at least {}: {} reserved + {} x {} FAT + {} root "
                       "directory + {} cluster",
                       total_field(boot).name, total, least, boot.reserved_sectors, boot.fats,
                       boot.has_fat32_sizes() ? boot.fat_size_32 : boot.fat_size_16,
                       boot.sectors_to_data() - boot.sectors_to_root_area(),
                       boot.sectors_per_cluster);
}

// ---- volumes that are not supported ----

std::string unsupported_fat32(u64 clusters) {
    if (clusters > FAT32_MAX_CLUSTERS) {
        return fmt::format(
            "has a boot sector that contradicts itself: it has {} clusters, FAT32 has "
            "at most {}",
            clusters, FAT32_MAX_CLUSTERS);
    }
    return "";
}

std::string unsupported_fat16(u64 clusters, const core::boot_numbers &boot) {
    if (clusters >= core::FAT32_MIN_CLUSTERS) {
        return fmt::format("has a boot sector that contradicts itself: {} clusters are FAT32, a "
                           "16-bit FAT size of {} is FAT16",
                           clusters, boot.fat_size_16);
    }
    if (boot.root_entries == 0) {
        return fmt::format(
            "has a boot sector that contradicts itself: a 16-bit FAT size of {} is FAT12 or "
            "FAT16, 0 root entries are FAT32",
            boot.fat_size_16);
    }
    return "";
}

// ---- contradictions ----

using contradictions = std::vector<contradiction>;

void compare_sizes(const core::boot_numbers &boot, contradictions *found) {
    if (boot.total_16 != 0 && boot.total_32 != 0 && boot.total_16 != boot.total_32) {
        found->push_back(
            {contradiction_kind::FIELDS,
             fmt::format("the 16-bit total is {} sectors and the 32-bit total is {}, should be "
                         "equal, or one of them 0",
                         boot.total_16, boot.total_32)});
    }
    if (!std::has_single_bit(boot.sectors_per_cluster)) {
        found->push_back({contradiction_kind::FIELDS,
                          fmt::format("a cluster has {} sectors, should be a power of two",
                                      boot.sectors_per_cluster)});
    }
    if (boot.reserved_sectors == 0) {
        found->push_back({contradiction_kind::FIELDS,
                          "the volume has 0 reserved sectors, should be at least 1 for the boot "
                          "sector"});
    }
    if (boot.fats == 0) {
        found->push_back(
            {contradiction_kind::FIELDS, "the volume has 0 FAT copies, should be at least 1"});
    }
}

void compare_fat_size(const core::volume &on, contradictions *found) {
    const u64 entries = on.fat_entries();
    const u64 wanted = u64{on.at.clusters} + core::FIRST_DATA_CLUSTER;
    if (entries < wanted) {
        found->push_back({contradiction_kind::FAT_SIZE,
                          fmt::format("the last cluster of the FAT is {}, should be at least {}",
                                      entries - 1, wanted - 1)});
    }
}

void compare_device(const core::volume &on, u64 device_bytes, contradictions *found) {
    const u64 device_sectors = device_bytes / on.at.sector_size;
    if (device_sectors < on.at.total_sectors) {
        found->push_back({contradiction_kind::FIELDS,
                          fmt::format("the volume has {} sectors, should have at most {} to fit",
                                      on.at.total_sectors, device_sectors)});
    }
}

void compare_root(const core::volume &on, const core::boot_numbers &boot, contradictions *found) {
    if (boot.root_entries != 0) {
        found->push_back(
            {contradiction_kind::FIELDS,
             fmt::format("a FAT32 volume has {} root entries, should be 0", boot.root_entries)});
    }
    if (!on.is_data_cluster(on.at.root_cluster)) {
        found->push_back(
            {contradiction_kind::FIELDS,
             fmt::format("the first cluster of the root directory is {}, should be "
                         "{} to {}",
                         on.at.root_cluster, core::FIRST_DATA_CLUSTER, on.last_cluster())});
    }
}

void compare_active_fat(const core::boot_numbers &boot, contradictions *found) {
    const u32 active = boot.active_fat();
    if (active >= boot.fats && active != 0) {
        found->push_back(
            {contradiction_kind::FIELDS,
             fmt::format("the active FAT copy is {}, should be less than {}, the number of copies",
                         active, boot.fats)});
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
    return core::is_boot_signature(sector) && size >= core::MIN_SECTOR_SIZE &&
           size <= core::MAX_SECTOR_SIZE && core::load(sector, core::PBR_SECTORS_PER_CLUSTER) != 0;
}

bool have_same_areas(const u8 *boot, const u8 *backup) {
    return std::all_of(std::begin(GEOMETRY_FIELDS), std::end(GEOMETRY_FIELDS),
                       [&](const core::field &field) {
                           return core::load(boot, field) == core::load(backup, field);
                       });
}

void compare_backup(const core::volume &on, std::span<const u8> boot, u32 sector,
                    contradictions *found) {
    const std::vector<u8> backup = read_extent(on, sector, 1);
    if (is_boot_sector(backup.data()) && !have_same_areas(boot.data(), backup.data())) {
        found->push_back(
            {contradiction_kind::GEOMETRY,
             fmt::format("the boot sector and its backup in sector {} describe different areas",
                         sector)});
    }
}

void compare_reserved_sectors(const core::volume &on, std::span<const u8> boot,
                              contradictions *found) {
    const core::boot_numbers numbers(boot.data());
    const u32 reserved = numbers.reserved_sectors;
    const u32 backup = numbers.backup_sector;
    const u32 fsinfo = numbers.fsinfo_sector;
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
        compare_backup(on, boot, backup, found);
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

// The first reason counts: what a sector is instead of a boot sector is to be recognised before its
// numbers are judged.
std::string no_volume_reason(std::span<const u8> boot) {
    if (!core::is_boot_signature(boot.data())) {
        return fmt::format("the boot signature is 0x{:04X}, should be 0x{:04X}",
                           core::load(boot.data(), core::PBR_SIGNATURE), core::BOOT_SIGNATURE);
    }
    const core::boot_numbers numbers(boot.data());
    const std::string invalid = invalid_sizes(numbers);
    return invalid.empty() ? too_small_total(numbers, core::load(boot.data(), total_field(numbers)))
                           : invalid;
}

std::string unsupported_volume(std::span<const u8> boot) {
    const core::boot_numbers numbers(boot.data());
    const u64 total = core::load(boot.data(), total_field(numbers));
    const u64 clusters = (total - numbers.sectors_to_data()) / numbers.sectors_per_cluster;
    return numbers.has_fat32_sizes() ? unsupported_fat32(clusters)
                                     : unsupported_fat16(clusters, numbers);
}

std::vector<contradiction> contradictions_of(const core::volume &on,
                                             std::optional<u64> device_bytes) {
    const std::vector<u8> boot = read_extent(on, 0, 1);
    const core::boot_numbers numbers(boot.data());
    contradictions found;
    compare_sizes(numbers, &found);
    if (numbers.fats != 0) {
        compare_fat_size(on, &found);
    }
    if (device_bytes) {
        compare_device(on, *device_bytes, &found);
    }
    if (on.is_wide()) {
        compare_root(on, numbers, &found);
        compare_active_fat(numbers, &found);
        compare_reserved_sectors(on, boot, &found);
    }
    return found;
}

} // namespace qvol
