// A mounted volume in memory: hand-made files and directories, opened by the library.

#pragma once

#include "tests/support/volume.h"

#include <cstdint>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace testing_support {

using model::bytes;

// Bytes without a pattern that a wrong offset could hit; none of them is zero.
inline bytes some_bytes(std::size_t size, std::uint32_t seed = 1) {
    std::minstd_rand engine(seed);
    bytes result(size);
    for (std::uint8_t &byte : result) {
        byte = static_cast<std::uint8_t>(1 + engine() % 255);
    }
    return result;
}

inline bytes part_of(const bytes &all, std::size_t offset, std::size_t size) {
    const auto begin = all.begin() + static_cast<std::ptrdiff_t>(offset);
    return {begin, begin + static_cast<std::ptrdiff_t>(size)};
}

inline bytes joined(bytes a, const bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class mounted : public volume {
public:
    explicit mounted(const volume_shape &shape = {}) : volume(shape) {
        if (fat_build_super() != 0) {
            throw std::runtime_error("this volume cannot be mounted");
        }
        disk.log.clear();
    }

    directory top = root();

    [[nodiscard]] static std::uint32_t cluster_bytes() {
        return sv->sec_per_clus * sv->sector_size;
    }
    static oentry &record(int id) {
        return *oentry_table[id];
    }
    // Number of ids in use, including the root's.
    [[nodiscard]] static int open_ids() {
        int result = 0;
        for (const oentry *entry : oentry_table) {
            result += entry != nullptr ? 1 : 0;
        }
        return result;
    }

    // Appends an entry to the root directory and opens it. The clusters become its chain.
    int open_new(std::string_view dos, const std::vector<std::uint32_t> &clusters,
                 std::uint32_t size, std::uint8_t attr = ARCHIVE) {
        chain(clusters);
        return open(
            top.append(short_entry(dos, attr, clusters.empty() ? 0 : clusters.front(), size)));
    }
    int open(std::uint32_t index) const {
        const int id = fat::fat_entry_open(sv->root_dir, index);
        if (id < 0) {
            throw std::runtime_error("this entry cannot be opened");
        }
        return id;
    }

    // The directory entry of an open file, on the medium and in its record.
    [[nodiscard]] entry_image stored_entry(int id) {
        const std::uint64_t sector = record(id).dentry_sector;
        return image_of(disk.peek(sector * sv->sector_size + record(id).dentry_offset, 32).data());
    }
    [[nodiscard]] static entry_image held_entry(int id) {
        return image_of(record(id).dentry);
    }

    // The concatenated bytes of clusters.
    [[nodiscard]] bytes data_of(const std::vector<std::uint32_t> &clusters) {
        bytes result;
        for (const std::uint32_t cluster : clusters) {
            result = joined(std::move(result), disk.peek(byte_of(cluster), cluster_bytes()));
        }
        return result;
    }
    void set_data(const std::vector<std::uint32_t> &clusters, const bytes &content) {
        for (std::size_t i = 0; i < clusters.size(); i++) {
            disk.poke(byte_of(clusters[i]), part_of(content, i * cluster_bytes(), cluster_bytes()));
        }
    }
    [[nodiscard]] static std::uint64_t byte_of(std::uint32_t cluster) {
        return std::uint64_t{first_sector_of(cluster)} * sv->sector_size;
    }
    // The clusters from `first` on, as the FAT links them.
    [[nodiscard]] std::vector<std::uint32_t> chain_from(std::uint32_t first) {
        std::vector<std::uint32_t> result;
        std::uint32_t cluster = first;
        while (cluster >= 2 && cluster <= last_cluster() && result.size() <= sv->num_clusters) {
            result.push_back(cluster);
            cluster = value_of(cluster);
        }
        return result;
    }
    // A FAT entry without its reserved bits.
    [[nodiscard]] std::uint32_t value_of(std::uint32_t cluster) {
        return link(cluster) & (sv->fat_type == 16 ? 0xFFFF : 0x0FFFFFFF);
    }

    // Stores an end mark in every free cluster except these.
    void fill_but(const std::set<std::uint32_t> &left_free) {
        const std::uint32_t width = sv->fat_type / 8;
        bytes table = fat_copy(0);
        for (std::uint32_t cluster = 2; cluster <= last_cluster(); cluster++) {
            if (value_of(cluster) != 0 || left_free.contains(cluster)) {
                continue;
            }
            model::put_field(&table, cluster * width, width, end_mark());
        }
        disk.poke(fat_offset(0), table);
    }

private:
    static entry_image image_of(const std::uint8_t *entry) {
        entry_image result = {};
        std::copy(entry, entry + 32, result.begin());
        return result;
    }
};

using model::field_of;
using model::size_of;
using model::start_of;

// The outcome of a call: its result, errno and its messages.
struct outcome {
    std::int64_t result;
    int error;
    std::string messages;
    bool operator==(const outcome &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const outcome &o) {
    return out << o.result << ", errno " << o.error << ", \"" << o.messages << "\"";
}

// errno before a call, and after a call that does not set it.
constexpr int UNTOUCHED_ERRNO = 4711;

} // namespace testing_support
