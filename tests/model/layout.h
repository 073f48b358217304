// Reference model: the layout of a volume.
//
// Models: the sizes that the formatter chooses for a target, with its refusals, and the areas
// that a mount reads from a boot sector. Divisions instead of shifts, one wide type.
//
// Not modelled: the bytes that the formatter writes; command-line options and their defaults; open
// entries, save that a mount of FAT32 counts the clusters of the root directory.

#pragma once

#include "tests/model/chain.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>

namespace model {

// ---- formatting -------------------------------------------------------------------------------

// A request to the formatter, with all defaults filled in.
struct asked {
    std::uint32_t width = 0; // of a FAT entry in bits: 16, 32, or 0: the formatter chooses
    std::uint32_t cluster_sectors = 1;
    std::uint32_t sector_bytes = 4096;
    std::uint32_t page_bytes = 4096; // 0: no alignment
    std::uint32_t root_entries = 512;
    std::uint32_t fats = 2;
};

// The expected volume. Of a refused volume only `result` and `printed` matter.
struct volume_layout {
    int result = 0;
    std::string printed; // diagnostics, source lines as N
    std::int64_t width = 0;
    std::int64_t reserved = 0;
    std::int64_t root_sectors = 0; // of the fixed area: 0 on FAT32
    std::int64_t root_entries = 0;
    std::int64_t fat_sectors = 0;
    std::int64_t clusters = 0;
    std::int64_t total = 0; // sectors

    [[nodiscard]] std::int64_t first_data_sector(std::int64_t fats) const {
        return reserved + fats * fat_sectors + root_sectors;
    }
};

class format_calculation {
public:
    format_calculation(const asked &wish, std::uint64_t target_bytes, std::int64_t total)
        : wish_(wish), target_(std::to_string(target_bytes)), total_(total),
          sector_(wish.sector_bytes), cluster_(std::int64_t{wish.cluster_sectors} * sector_) {}

    // The expected volume.
    volume_layout decide() {
        find_page_unit();
        result_.total = total_;
        if (wish_.width != 32) {
            const bool decided = decide_for_fat16();
            if (decided) {
                return result_;
            }
        }
        decide_for_fat32();
        return result_;
    }

    // The number of clusters without limits; negative if there is no room.
    std::int64_t clusters_as(std::int64_t width) {
        find_page_unit();
        lay_out(width);
        return result_.clusters;
    }

private:
    static std::string text(std::int64_t number) {
        return std::to_string(number);
    }
    // A value as %d prints it, truncated to 32 bits.
    static std::string cut(std::int64_t number) {
        return std::to_string(static_cast<std::int32_t>(static_cast<std::uint64_t>(number)));
    }
    static std::int64_t floor_of(std::int64_t value, std::int64_t unit) {
        return value >= 0 ? value / unit : -((-value + unit - 1) / unit);
    }
    static std::int64_t ceiling_of(std::int64_t value, std::int64_t unit) {
        return (value + unit - 1) / unit;
    }

    void refuse(const std::string &message) {
        result_.result = -EINVAL;
        result_.printed += message;
    }

    void find_page_unit() {
        const std::int64_t page = wish_.page_bytes;
        if (page == 0) {
            return;
        }
        const std::int64_t larger = std::max(page, sector_);
        if (larger % page == 0 && larger % sector_ == 0) {
            page_unit_ = larger / sector_;
            return;
        }
        result_.printed += "calc_fat_sectors[N]: Can't align to page size(" + cut(page) +
                           "): Sector is " + cut(sector_) + "\n";
    }

    // Rounds up to whole pages, at least one; without alignment returns the sectors unchanged.
    [[nodiscard]] std::int64_t in_pages(std::int64_t sectors) const {
        if (page_unit_ == 0) {
            return sectors;
        }
        return std::max<std::int64_t>(1, ceiling_of(sectors, page_unit_)) * page_unit_;
    }

    // Calculates everything but the limits. data_: sectors left for clusters; data_before_fats_:
    // the same before the FATs had a size.
    void lay_out(std::int64_t width) {
        const bool is_16 = width == 16;
        const std::int64_t entry = width / 8;
        result_.width = width;
        result_.root_sectors =
            is_16 ? in_pages(ceiling_of(std::int64_t{wish_.root_entries} * 32, sector_)) : 0;
        result_.root_entries = result_.root_sectors * sector_ / 32;
        result_.reserved = in_pages(is_16 ? 1 : 32);
        // Of FAT32, the 32 sectors before they are rounded up to pages.
        data_before_fats_ = total_ - (is_16 ? result_.root_sectors + result_.reserved : 32);
        const std::int64_t room = std::max<std::int64_t>(0, data_before_fats_) * sector_;
        const std::int64_t fats = wish_.fats;
        const std::int64_t estimate = (room + 2 * entry * fats) / (cluster_ + entry * fats);
        result_.fat_sectors = in_pages(ceiling_of((estimate + 2) * entry, sector_));
        data_ = data_before_fats_ - fats * result_.fat_sectors;
        result_.clusters = floor_of(data_, wish_.cluster_sectors);
        const std::int64_t limit = is_16 ? 65524 : 268435438;
        most_ = std::min(result_.fat_sectors * sector_ / entry - 2, limit);
    }

    // Whether the result is FAT16 or a refusal as FAT16; otherwise FAT32 is tried.
    bool decide_for_fat16() {
        lay_out(16);
        if (result_.root_sectors * sector_ % 1024 != 0) {
            refuse("calc_fat_sectors[N]: RdirSize is not even multiple of 512Bytes!\n\n");
            return true;
        }
        if (data_before_fats_ < 0) {
            refuse("Volume size(" + target_ +
                   ") is too small to format the volume to FAT16\n"
                   "Retry to format after enlarge the volume size to larger than (rdir area(" +
                   text(result_.root_sectors) + ") + reserved area(1)) * sector size(" +
                   text(sector_) + ")\n");
            return true;
        }
        if (result_.clusters <= 4084) {
            refuse("Cluster size(" + text(cluster_) + ") is too large or volume size(" + target_ +
                   ") is too small to format the device to FAT16.\n"
                   "If you want to format the deivce to FAT16/32, retry to format after reduce the "
                   "cluster size. Otherwise, retry to format the larger volume.\n"
                   "num_clusters " +
                   cut(result_.clusters) + " data area " + cut(data_) + "\n");
            return true;
        }
        if (most_ >= result_.clusters) {
            return true;
        }
        if (wish_.width != 16) {
            return false;
        }
        refuse("Cluster size(" + text(cluster_) +
               ") is too small to format this to FAT16.\n"
               "If you want to format this to FAT16, retry to format after enlarge the cluster "
               "size. Otherwise, retry to format the device with FAT32 type.\n"
               "fat " +
               cut(result_.fat_sectors) + " max " + cut(most_) + " num_clusters " +
               cut(result_.clusters) + "\n");
        return true;
    }

    void decide_for_fat32() {
        lay_out(32);
        if (data_before_fats_ < 0) {
            refuse("Volume size(" + target_ +
                   ") is too small to format the volume to FAT32\n"
                   "Retry to format after enlarge the volume size to larger than reserved area(32) "
                   "* sector size(" +
                   text(sector_) + ")\n");
        } else if (result_.clusters <= 65524) {
            refuse("Cluster size(" + text(cluster_) +
                   ") is too large to format the device to FAT32.\n"
                   "If you want to format the device to FAT32, retry to format after reduce the "
                   "cluster size\n"
                   "num_clusters " +
                   cut(result_.clusters) + " data area " + cut(data_) + "\n");
        } else if (most_ < result_.clusters) {
            refuse("Number of clusters(" + text(result_.clusters) +
                   ") is over the limitation of maximum cluster counts for FAT32\n"
                   "Retry to format after reduce the cluster size\n"
                   "fat sectors " +
                   cut(result_.fat_sectors) + " max clusters " + cut(most_) + " data area " +
                   cut(data_) + "\n");
        } else if (floor_of(data_ - (result_.reserved - 32), wish_.cluster_sectors) <= 65524) {
            // The areas are placed after the larger reserved area: too few clusters are left.
            refuse("calc_fat_sectors[N]: Invalid format request: FAT" + text(wish_.width) + ", " +
                   text(wish_.fats) + " FATs, " + text(wish_.cluster_sectors) + " sectors of " +
                   text(sector_) + " bytes per cluster, " + text(wish_.root_entries) +
                   " root entries, page size " + text(wish_.page_bytes) + "\n\n");
        }
    }

    asked wish_;
    std::string target_;
    std::int64_t total_;
    std::int64_t sector_;
    std::int64_t cluster_;       // bytes
    std::int64_t page_unit_ = 0; // sectors; 0: no alignment
    std::int64_t data_before_fats_ = 0;
    std::int64_t data_ = 0;
    std::int64_t most_ = 0;
    volume_layout result_;
};

// The sectors that the formatter uses of a target: whole ones, and an even number of them, counted
// in 32 bits.
inline std::int64_t usable_sectors(std::uint64_t target_bytes, std::uint32_t sector_bytes) {
    const std::uint64_t whole = target_bytes / sector_bytes % (std::uint64_t{1} << 32);
    return static_cast<std::int64_t>(whole - whole % 2);
}

// ---- mounting ---------------------------------------------------------------------------------

// A boot sector, read by a mount. Sums of more than 32 bits are truncated when they are stored.
class mount_reader {
public:
    int result = 0;
    std::string printed; // diagnostics, source lines as N
    areas found;         // of a refused volume: as far as the mount came

    // `width_before`: bits of a FAT entry of the volume mounted before, 0: no such volume.
    mount_reader(const medium::reader &read, std::uint64_t target_bytes, std::uint32_t width_before)
        : boot_(read(0, 512)) {
        const char *const me = "fat_build_super";
        if (number(510, 2) != 0xAA55) {
            refuse("get_pbr_sector", "Invalid PBR signature\n\n");
            refuse(me, "Cannot get PBR sector!\n\n");
        } else if (!decode()) {
            refuse(me, "PBR data is broken\n\n");
        } else if (found.clusters < 4085) {
            refuse(me, "NumCluster is over the limitation: clus(" + std::to_string(found.clusters) +
                           "), FAT" + std::to_string(width_before) + "\n");
        } else if (found.width == 16 &&
                   number(17, 2) == 0) { // by its count, but without a root area
            refuse(me, "PBR data is broken\n\n");
        } else if (found.width == 32) {
            open_root(read, target_bytes);
        }
    }

private:
    void refuse(const std::string &function, const std::string &message) {
        result = -EINVAL;
        printed += function + "[N]: " + message;
    }
    [[nodiscard]] std::uint64_t number(std::size_t offset, std::size_t size) const {
        return field_of(boot_, offset, size);
    }
    static std::uint32_t low(std::uint64_t value) {
        return static_cast<std::uint32_t>(value);
    }

    bool decode() {
        const std::uint64_t sector_bytes = number(11, 2);
        const std::uint64_t cluster = number(13, 1);
        const bool is_short = number(22, 2) != 0; // 16-bit fields
        const std::uint64_t fat = is_short ? number(22, 2) : number(36, 4);
        const bool has_short_total = is_short && number(19, 2) != 0;
        const std::uint64_t total = has_short_total ? number(19, 2) : number(32, 4);
        const std::set<std::uint64_t> sizes = {512, 1024, 2048, 4096};
        if (fat == 0 || !sizes.contains(sector_bytes) || cluster == 0) {
            return false;
        }
        const std::uint64_t root = (number(17, 2) * 32 + sector_bytes - 1) / sector_bytes;
        const std::uint64_t fats_end = number(14, 2) + number(16, 1) * fat;
        if (fats_end + root > total) {
            return false;
        }
        found.sector_bytes = low(sector_bytes);
        found.cluster_sectors = low(cluster);
        found.fat_sectors = low(fat);
        found.total_sectors = low(total);
        found.clusters = low((total - fats_end - root) / cluster);
        found.width = found.clusters < 65525 ? 16 : 32;
        found.fat_start = low(number(14, 2));
        found.root_start = low(fats_end);
        found.data_start = low(fats_end + root);
        if (found.width == 32) {
            found.root_cluster = low(number(44, 4));
            found.root_start = found.first_sector_of(found.root_cluster);
        }
        return true;
    }
    // A root directory without a cluster opens, too.
    void open_root(const medium::reader &read, std::uint64_t target_bytes) {
        chains fat(found, read);
        fat.sectors_of_target = target_bytes / found.sector_bytes;
        std::uint32_t last = 0;
        if (found.root_cluster != 0 && fat.count(found.root_cluster, &last) < 0) {
            printed += fat.printed;
            refuse("open_root_directory", "failed to set oentry!\n\n");
            refuse("fat_build_super", "Cannot open root directory!\n\n");
        }
    }

    bytes boot_;
};

} // namespace model
