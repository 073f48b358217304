// A formatted volume on the medium in memory, and helpers that set it up without the library: FAT
// entries, directory entries and long-name slots in any state, open directories.

#pragma once

#include "fat/internal.h"
#include "tests/model/names.h"
#include "tests/support/ram_disk.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace testing_support {

// ---- the shape of a volume --------------------------------------------------------------------

struct volume_shape {
    std::uint32_t fat_type = 16;
    std::uint32_t sector_size = 512;
    std::uint32_t sec_per_clus = 1;
    std::uint32_t clusters = 0;       // at least this many; 0: the minimum for the width
    std::uint32_t root_entries = 512; // FAT16: of the fixed root area
    std::uint8_t fill = 0;            // unwritten bytes; 0xE5 makes them deleted entries
};

// As part of the name of a case: "Fat16Sector512Cluster4".
inline std::string name_of(const volume_shape &shape) {
    return "Fat" + std::to_string(shape.fat_type) + "Sector" + std::to_string(shape.sector_size) +
           "Cluster" + std::to_string(shape.sec_per_clus);
}
inline std::ostream &operator<<(std::ostream &stream, const volume_shape &shape) {
    return stream << name_of(shape);
}

// Every sector size, clusters from 1 to 64 sectors, of one width or of both.
inline std::vector<volume_shape> many_shapes(std::uint32_t fat_type) {
    std::vector<volume_shape> result;
    for (const auto &[sector_size, sec_per_clus] :
         std::initializer_list<std::pair<std::uint32_t, std::uint32_t>>{
             {512, 1}, {512, 8}, {512, 64}, {1024, 2}, {2048, 16}, {4096, 1}, {4096, 64}}) {
        volume_shape shape;
        shape.fat_type = fat_type;
        shape.sector_size = sector_size;
        shape.sec_per_clus = sec_per_clus;
        result.push_back(shape);
    }
    return result;
}
inline std::vector<volume_shape> many_shapes() {
    std::vector<volume_shape> result = many_shapes(16);
    const std::vector<volume_shape> wide = many_shapes(32);
    result.insert(result.end(), wide.begin(), wide.end());
    return result;
}

// The third argument of INSTANTIATE_TEST_SUITE_P for cases over shapes.
inline std::string shape_name(const testing::TestParamInfo<volume_shape> &info) {
    return name_of(info.param);
}

// ---- directory entries ------------------------------------------------------------------------

using entry_image = model::raw_entry;
using model::checksum_of;
using model::deleted;
using model::long_slot;
using model::long_slots;
using model::short_entry;

constexpr std::uint8_t READ_ONLY = 0x01, HIDDEN = 0x02, SYSTEM = 0x04, LABEL = 0x08,
                       DIRECTORY = 0x10, ARCHIVE = 0x20, SLOT = 0x0F;

// ---- the volume -------------------------------------------------------------------------------

class directory;

// The one open volume, made by the formatter on its own disk. Long names are on.
class volume {
public:
    explicit volume(const volume_shape &shape = {}) : disk(bytes_for(shape), shape.fill) {
        sv->long_name = 1;
        fat_format_param param = request(shape);
        if (check_format_param(&param) != 0) {
            throw std::runtime_error("this volume cannot be asked for");
        }
        param.page_size = 0;
        if (shape.fat_type == 16) {
            param.root_entries = shape.root_entries;
        }
        if (fat_format(&param) < 0) {
            throw std::runtime_error("this volume cannot be formatted");
        }
        disk.log.clear();
    }

    ram_disk disk;

    // -- FAT entries: all 16 or 32 bits, as stored on the medium

    [[nodiscard]] static std::uint64_t fat_offset(std::uint32_t cluster, std::uint32_t copy = 0) {
        const std::uint64_t start = sv->fat_start + std::uint64_t{copy} * sv->fat_size;
        return start * sv->sector_size + std::uint64_t{cluster} * (sv->fat_type / 8);
    }
    [[nodiscard]] static std::uint64_t fat_sector_of(std::uint32_t cluster) {
        return fat_offset(cluster) / sv->sector_size;
    }
    void set_link(std::uint32_t cluster, std::uint32_t value) {
        std::vector<std::uint8_t> stored(sv->fat_type / 8);
        model::put_field(&stored, 0, stored.size(), value);
        disk.poke(fat_offset(cluster), stored);
    }
    [[nodiscard]] std::uint32_t link(std::uint32_t cluster, std::uint32_t copy = 0) {
        const std::size_t size = sv->fat_type / 8;
        return model::field_of(disk.peek(fat_offset(cluster, copy), size), 0, size);
    }
    // Links the clusters one after another and ends the chain.
    void chain(const std::vector<std::uint32_t> &clusters) {
        for (std::size_t i = 0; i < clusters.size(); i++) {
            set_link(clusters[i], i + 1 < clusters.size() ? clusters[i + 1] : end_mark());
        }
    }
    [[nodiscard]] static std::uint32_t end_mark() {
        return sv->fat_type == 16 ? 0xFFFF : 0x0FFFFFFF;
    }
    [[nodiscard]] static std::uint32_t first_end_mark() {
        return sv->fat_type == 16 ? 0xFFF8 : 0x0FFFFFF8;
    }
    [[nodiscard]] static std::uint32_t bad_mark() {
        return sv->fat_type == 16 ? 0xFFF7 : 0x0FFFFFF7;
    }
    // The bytes of one copy of the FAT.
    [[nodiscard]] std::vector<std::uint8_t> fat_copy(std::uint32_t copy) {
        return disk.peek(fat_offset(0, copy), std::size_t{sv->fat_size} * sv->sector_size);
    }
    // The free clusters, counted in the first FAT copy on the medium. Later calls count only the
    // blocks that were written since: the whole FAT after each of thousands of steps takes long.
    [[nodiscard]] std::uint32_t count_free() {
        const std::pair fat(fat_offset(2), fat_offset(last_cluster() + 1));
        std::set<std::uint64_t> changed = disk.take_changed_blocks();
        if (fat != counted_fat_) {
            counted_fat_ = fat;
            free_in_block_.clear();
            for (std::uint64_t at = fat.first; at < fat.second; at += ram_disk::BLOCK) {
                changed.insert(at / ram_disk::BLOCK);
            }
            changed.insert((fat.second - 1) / ram_disk::BLOCK);
        }
        for (const std::uint64_t number : changed) {
            free_in_block_[number] = count_free_in(number);
        }
        std::uint32_t result = 0;
        for (const auto &[number, count] : free_in_block_) {
            result += count;
        }
        return result;
    }

    // -- locations

    [[nodiscard]] static std::uint32_t last_cluster() {
        return sv->num_clusters + 1;
    }
    [[nodiscard]] static std::uint32_t first_sector_of(std::uint32_t cluster) {
        return sv->data_start + (cluster - 2) * sv->sec_per_clus;
    }
    [[nodiscard]] static std::uint32_t entries_per_sector() {
        return sv->sector_size / 32;
    }
    [[nodiscard]] static std::uint32_t entries_per_cluster() {
        return entries_per_sector() * sv->sec_per_clus;
    }

    // -- directories

    // The root as formatted. On FAT32 it is the chain that begins with the root cluster.
    [[nodiscard]] directory root();
    // A sub-directory in these clusters, which become a chain.
    [[nodiscard]] directory sub_directory(std::vector<std::uint32_t> clusters);
    // The root directory of a FAT32 volume, with these clusters after its first one.
    [[nodiscard]] directory longer_root(std::vector<std::uint32_t> further);

    // -- the log

    // How often each sector was read, and the order of first reads.
    [[nodiscard]] std::vector<std::pair<std::uint64_t, int>> sectors_read() const {
        std::vector<std::pair<std::uint64_t, int>> result;
        for (const transfer &t : disk.log) {
            for (std::uint32_t i = 0; !t.is_write && i < t.count; i++) {
                count_read(t.sector + i, &result);
            }
        }
        return result;
    }
    // Sectors moved in either direction.
    [[nodiscard]] std::uint64_t traffic() const {
        std::uint64_t result = 0;
        for (const transfer &t : disk.log) {
            result += t.count;
        }
        return result;
    }

private:
    static fat_format_param request(const volume_shape &shape) {
        fat_format_param param = {};
        param.fat_size = shape.fat_type;
        param.sec_per_clus = shape.sec_per_clus;
        // Clusters of more than 32 KiB are accepted only with the default sector size.
        const bool is_large = shape.sec_per_clus * shape.sector_size > 32768;
        param.sector_size = is_large ? 0 : shape.sector_size;
        param.volume_id = 0x20240229;
        return param;
    }
    static std::uint64_t bytes_for(const volume_shape &shape) {
        const std::uint64_t fewest = shape.fat_type == 16 ? 4085 : 65525;
        const std::uint64_t clusters = std::max<std::uint64_t>(fewest, shape.clusters);
        const std::uint64_t fat_bytes = (clusters + 2) * shape.fat_type / 8;
        const std::uint64_t fat_sectors = fat_bytes / shape.sector_size + 1;
        const std::uint64_t root_sectors =
            shape.fat_type == 16
                ? (shape.root_entries * 32 + shape.sector_size - 1) / shape.sector_size
                : 0;
        const std::uint64_t reserved = shape.fat_type == 16 ? 1 : 32;
        // One more sector for an even number, one cluster for the remainder of the division.
        const std::uint64_t sectors =
            reserved + 2 * fat_sectors + root_sectors + (clusters + 1) * shape.sec_per_clus + 1;
        return sectors * shape.sector_size;
    }
    static void count_read(std::uint64_t sector,
                           std::vector<std::pair<std::uint64_t, int>> *counts) {
        for (auto &[known, times] : *counts) {
            if (known == sector) {
                times++;
                return;
            }
        }
        counts->emplace_back(sector, 1);
    }

    // Of the entries of clusters in this block of the disk.
    std::uint32_t count_free_in(std::uint64_t number) {
        const std::uint64_t start = number * ram_disk::BLOCK;
        const std::uint64_t begin = std::max(counted_fat_.first, start);
        const std::uint64_t end = std::min(counted_fat_.second, start + ram_disk::BLOCK);
        const std::uint8_t *block = disk.block(number);
        std::uint32_t result = 0;
        for (std::uint64_t at = begin; at < end; at += sv->fat_type / 8) {
            const std::uint8_t *entry = block + (at - start);
            const bool is_free = entry[0] == 0 && entry[1] == 0 &&
                                 (sv->fat_type == 16 || (entry[2] == 0 && (entry[3] & 0xF) == 0));
            result += is_free ? 1 : 0;
        }
        return result;
    }

    std::pair<std::uint64_t, std::uint64_t> counted_fat_; // its first byte, and the one past it
    std::map<std::uint64_t, std::uint32_t> free_in_block_;
};

// ---- directories ------------------------------------------------------------------------------

// The space of a directory and a hand-made open entry of it.
class directory {
public:
    // Of the FAT16 root, `clusters` is empty.
    directory(volume *where, std::vector<std::uint32_t> chain_clusters, bool is_root)
        : clusters(std::move(chain_clusters)), where_(where) {
        if (clusters.empty()) {
            for (std::uint32_t s = sv->rdir_start; s < sv->data_start; s++) {
                sectors.push_back(s);
            }
            record.start = sv->rdir_start;
            record.last = sv->data_start - 1;
            record.allocated = 16384;
        } else {
            for (const std::uint32_t cluster : clusters) {
                for (std::uint32_t s = 0; s < sv->sec_per_clus; s++) {
                    sectors.push_back(volume::first_sector_of(cluster) + s);
                }
            }
            record.start = clusters.front();
            record.last = clusters.back();
            record.allocated = static_cast<std::uint32_t>(sectors.size()) * sv->sector_size;
        }
        record.ref_count = 1;
        if (!is_root) {
            own_ = short_entry("SUBDIR     ", DIRECTORY, clusters.front());
            record.dentry = own_.data();
        }
    }
    directory(const directory &) = delete;
    directory &operator=(const directory &) = delete;
    ~directory() = default;

    const std::vector<std::uint32_t> clusters;
    std::vector<std::uint32_t> sectors; // in their order in the directory
    oentry record = {};

    // The argument of walks: 0 for the FAT16 root.
    [[nodiscard]] std::uint32_t base() const {
        return clusters.empty() ? 0 : clusters.front();
    }
    [[nodiscard]] std::uint32_t capacity() const {
        return static_cast<std::uint32_t>(sectors.size()) * volume::entries_per_sector();
    }
    [[nodiscard]] std::uint64_t offset_of(std::uint32_t index) const {
        const std::uint64_t byte = std::uint64_t{index} * 32;
        return std::uint64_t{sectors.at(static_cast<std::size_t>(byte / sv->sector_size))} *
                   sv->sector_size +
               byte % sv->sector_size;
    }
    void put(std::uint32_t index, const entry_image &entry) {
        where_->disk.poke(offset_of(index), {entry.begin(), entry.end()});
    }
    [[nodiscard]] entry_image at(std::uint32_t index) const {
        const std::vector<std::uint8_t> stored = where_->disk.peek(offset_of(index), 32);
        entry_image result = {};
        std::copy(stored.begin(), stored.end(), result.begin());
        return result;
    }

    // Append entries after those appended before. Return the index of the last one.
    std::uint32_t append(const entry_image &entry) {
        put(used_, entry);
        return used_++;
    }
    std::uint32_t append(const std::vector<entry_image> &entries) {
        for (const entry_image &entry : entries) {
            append(entry);
        }
        return used_ - 1;
    }
    // A file with a long name: its slots and its short entry.
    std::uint32_t append_long(std::u16string_view name, std::string_view dos) {
        append(long_slots(name, dos));
        return append(short_entry(dos));
    }
    // append() continues at `index`.
    void go_to(std::uint32_t index) {
        used_ = index;
    }
    // Repeats the entry up to the end of the space.
    void fill_up(const entry_image &entry) {
        while (used_ < capacity()) {
            append(entry);
        }
    }

private:
    volume *where_;
    entry_image own_ = {};
    std::uint32_t used_ = 0;
};

inline directory volume::root() {
    if (sv->fat_type == 16) {
        return {this, {}, true};
    }
    return {this, {sv->root_clus}, true};
}

inline directory volume::sub_directory(std::vector<std::uint32_t> clusters) {
    chain(clusters);
    return {this, std::move(clusters), false};
}

inline directory volume::longer_root(std::vector<std::uint32_t> further) {
    further.insert(further.begin(), sv->root_clus);
    chain(further);
    return {this, std::move(further), true};
}

} // namespace testing_support
