// Volumes for cases about cluster chains: hand-made chains, occupied clusters and open entries, and
// the library's messages for a failing chain or FAT.

#pragma once

#include "fat/internal.h"
#include "tests/support/capture.h"
#include "tests/support/fat_picture.h"
#include "tests/support/faults.h"
#include "tests/support/open_entries.h"
#include "tests/support/volume.h"

#include <array>
#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace testing_support {

constexpr std::uint32_t UNTOUCHED = 0xDEADBEEF;
constexpr std::uint32_t END =
    0xFFFFFFFF; // initial value of results, and the terminator of a cluster list

inline const std::string NO_SPACE = "fat_alloc_cluster[N]: No space left on volume!!\n";
inline const std::string CANNOT_READ = "fat_read_entry[N]: cannot read FAT\n\n";
inline const std::string CANNOT_CHANGE = "fat_write_entry[N]: cannot read FAT\n";
inline const std::string CANNOT_WRITE = "fat_write_entry[N]: cannot write FAT\n\n";
inline const std::string NOT_LINKED = "fat_alloc_cluster[N]: Failed to write entry!\n\n";
inline const std::string INVALID_ARG = "fat_read_clus[N]: Invalid arg!\n\n";
inline const std::string INVALID_LINK = "fat_read_clus[N]: Invalid cluster!\n\n";
inline const std::string INVALID_VALUE = "fat_free_clus[N]: Invalid cluster value!\n\n";
inline const std::string NOT_EXTENDED = "fat_extend_dir[N]: Failed to allocate cluster!\n\n";
inline const std::string NOT_COUNTED = "fat_count_clusters[N]: Failed to read cluster!\n\n";
inline const std::string NOT_RELEASED = "fat_release_clusters[N]: Failed to read cluster!\n\n";
inline const std::string TRUNCATED =
    "fat_release_clusters[N]: FAT chain is broken, but truncated all clusters\n";
inline const std::string NOT_LISTED = "fat_get_chains[N]: Failed to read cluster!\n\n";

// Transfers that move another number of sectors than requested, including none.
constexpr int NOT_ONE_SECTOR[] = {-1, -5, -28, 0};

// The fields of an open entry that allocation changes.
struct shown {
    std::uint32_t start, last, allocated;
    entry_image image;
    bool operator==(const shown &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const shown &s) {
    return out << "start " << s.start << ", last " << s.last << ", allocated " << s.allocated
               << ", image " << testing::PrintToString(s.image);
}

// A hand-made open entry with its own dentry copy.
class open_entry {
public:
    explicit open_entry(const std::vector<std::uint32_t> &clusters = {},
                        std::uint8_t attr = ARCHIVE)
        : image(short_entry("ENTRY      ", attr, clusters.empty() ? 0 : clusters.front(), 77)) {
        record.start = clusters.empty() ? 0 : clusters.front();
        record.last = clusters.empty() ? 0 : clusters.back();
        record.allocated =
            static_cast<std::uint32_t>(clusters.size()) * sv->sec_per_clus * sv->sector_size;
        record.pos = 5;
        record.ref_count = 3;
        record.dentry_sector = 1234;
        record.dentry_offset = 96;
        record.dentry = image.data();
        record.parent_clus = 17;
    }
    open_entry(const open_entry &) = delete;
    open_entry &operator=(const open_entry &) = delete;
    ~open_entry() {
        EXPECT_EQ(record.pos, 5U);
        EXPECT_EQ(record.ref_count, 3U);
        EXPECT_EQ(record.dentry_sector, 1234U);
        EXPECT_EQ(record.dentry_offset, 96U);
        EXPECT_EQ(record.parent_clus, 17U);
    }

    [[nodiscard]] shown now() const {
        return {record.start, record.last, record.allocated, image};
    }

    oentry record = {};
    entry_image image;
};

// Both widths, sectors and clusters of several sizes.
inline std::vector<volume_shape> chain_shapes() {
    std::vector<volume_shape> result;
    for (const auto &[type, sector_size, sec_per_clus] :
         std::initializer_list<std::array<std::uint32_t, 3>>{{16, 512, 1},
                                                             {16, 512, 8},
                                                             {16, 4096, 64},
                                                             {32, 512, 1},
                                                             {32, 1024, 2},
                                                             {32, 4096, 8}}) {
        volume_shape shape;
        shape.fat_type = type;
        shape.sector_size = sector_size;
        shape.sec_per_clus = sec_per_clus;
        result.push_back(shape);
    }
    return result;
}

// A case on a formatted volume, with helpers to set up its FAT and its data.
class chain_case : public testing::TestWithParam<volume_shape> {
protected:
    answer heard(int result) {
        const answer a{result, messages.text()};
        messages.clear();
        return a;
    }
    static answer failed(int result, const std::string &message) {
        return {result, message};
    }
    std::vector<transfer> transfers() {
        return std::exchange(v.disk.log, {});
    }
    // The sectors that were written, in order, and how many transfers read one.
    std::vector<std::uint64_t> sectors_written() {
        std::vector<std::uint64_t> result;
        for (const transfer &t : v.disk.log) {
            for (std::uint32_t i = 0; t.is_write && i < t.count; i++) {
                result.push_back(t.sector + i);
            }
        }
        return result;
    }
    std::uint64_t sectors_read() {
        std::uint64_t result = 0;
        for (const transfer &t : v.disk.log) {
            result += t.is_write ? 0 : t.count;
        }
        return result;
    }

    [[nodiscard]] static std::uint32_t entries_per_fat_sector() {
        return sv->sector_size / (sv->fat_type / 8);
    }
    // Sets the FAT entries of clusters `first` to `last` to one value.
    void fill(std::uint32_t first, std::uint32_t last, std::uint32_t value) {
        const std::uint32_t width = sv->fat_type / 8;
        std::vector<std::uint8_t> bytes(std::size_t{last - first + 1} * width);
        for (std::size_t at = 0; at < bytes.size(); at += width) {
            model::put_field(&bytes, at, width, value);
        }
        v.disk.poke(volume::fat_offset(first), bytes);
    }
    // Leaves only these clusters free.
    void occupy_all_but(const std::vector<std::uint32_t> &free_clusters) {
        fill(2, volume::last_cluster(), volume::end_mark());
        for (const std::uint32_t cluster : free_clusters) {
            v.set_link(cluster, 0);
        }
    }
    // The data of a cluster.
    std::vector<std::uint8_t> data_of(std::uint32_t cluster) {
        return v.disk.peek(std::uint64_t{volume::first_sector_of(cluster)} * sv->sector_size,
                           cluster_bytes);
    }
    void fill_data(std::uint32_t cluster, std::uint8_t byte) {
        v.disk.poke(std::uint64_t{volume::first_sector_of(cluster)} * sv->sector_size,
                    std::vector<std::uint8_t>(cluster_bytes, byte));
    }
    std::vector<std::uint8_t> all(std::uint8_t byte) {
        return std::vector<std::uint8_t>(cluster_bytes, byte);
    }

    volume v{GetParam()};
    diagnostics messages;
    const std::uint32_t cluster_bytes = sv->sec_per_clus * sv->sector_size;
    const std::uint32_t last_cluster = volume::last_cluster();
    // Clusters whose entries are in the second sector of the FAT.
    const std::uint32_t far = entries_per_fat_sector() + 5;
};

inline std::vector<volume_shape> chain_shapes(std::uint32_t fat_type) {
    std::vector<volume_shape> result = chain_shapes();
    std::erase_if(result, [&](const volume_shape &s) { return s.fat_type != fat_type; });
    return result;
}

// A chain whose links alternate between two sectors of the FAT, so that every step is in the log.
// Its last cluster links back to number `back_to`.
inline std::vector<std::uint32_t> circular_chain(volume *v, std::uint32_t length,
                                                 std::uint32_t back_to) {
    const std::uint32_t per_sector = sv->sector_size / (sv->fat_type / 8);
    std::vector<std::uint32_t> clusters;
    for (std::uint32_t i = 0; i < length; i++) {
        clusters.push_back(i % 2 * per_sector + 10 + i / 2);
    }
    v->chain(clusters);
    v->set_link(clusters.back(), clusters[back_to]);
    return clusters;
}

} // namespace testing_support
