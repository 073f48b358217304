// Reference model, ground floor: the sectors of a volume and where its areas are.
//
// Models: whole sectors that are read and written one at a time, sectors that cannot be read or
// written, the order of the writes, the text of the diagnostics.
//
// Not modelled: transfers of several sectors, caches, transfers that fail only once. FAT copies
// after the first are ordinary sectors, which no operation writes.

#pragma once

#include "tests/model/names.h"

#include <compare>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace model {

// In sectors, unless the name has another unit. Of FAT32 the root is the sector where its first
// cluster begins.
struct areas {
    std::uint32_t width = 16; // bits of a FAT entry
    std::uint32_t sector_bytes = 512;
    std::uint32_t cluster_sectors = 1;
    std::uint32_t clusters = 0; // the last one is clusters + 1
    std::uint32_t fat_start = 0;
    std::uint32_t fat_sectors = 0; // of one copy
    std::uint32_t root_start = 0;
    std::uint32_t data_start = 0;   // cluster 2
    std::uint32_t root_cluster = 0; // FAT32
    std::uint32_t total_sectors = 0;
    bool operator==(const areas &) const = default;

    [[nodiscard]] std::uint32_t cluster_bytes() const {
        return cluster_sectors * sector_bytes;
    }
    [[nodiscard]] std::uint32_t last_cluster() const {
        return clusters + 1;
    }
    [[nodiscard]] bool has_cluster(std::uint32_t cluster) const {
        return cluster >= 2 && cluster <= last_cluster();
    }
    [[nodiscard]] std::uint32_t end_mark() const { // the highest one, and the mask of a value
        return width == 16 ? 0xFFFF : 0x0FFFFFFF;
    }
    [[nodiscard]] bool is_end(std::uint32_t value) const {
        return value >= end_mark() - 7;
    }
    [[nodiscard]] std::uint32_t first_sector_of(std::uint32_t cluster) const {
        return data_start + (cluster - 2) * cluster_sectors;
    }
};

inline std::ostream &operator<<(std::ostream &out, const areas &a) {
    return out << "{FAT" << a.width << " of " << a.fat_sectors << " sectors, total "
               << a.total_sectors << ", clusters " << a.clusters << ", sectors of "
               << a.sector_bytes << " bytes, clusters of " << a.cluster_sectors << ", root cluster "
               << a.root_cluster << ", FAT at " << a.fat_start << ", root at " << a.root_start
               << ", data at " << a.data_start << "}";
}

struct location {
    std::uint64_t sector = 0;
    std::uint32_t offset = 0; // bytes
    auto operator<=>(const location &) const = default;
};

class medium {
public:
    using reader = std::function<bytes(std::uint64_t offset, std::size_t size)>;
    struct sector_write {
        std::uint64_t sector;
        bytes content;
        bool operator==(const sector_write &) const = default;
    };

    // `initial` returns the bytes from `offset` on before any write of the model.
    medium(const areas &of_the_volume, reader initial)
        : shape(of_the_volume), initial_(std::move(initial)) {}
    medium(medium &&) = default;
    medium(const medium &) = delete;
    medium &operator=(const medium &) = delete;
    ~medium() = default;

    areas shape;
    std::set<std::uint64_t> unreadable, unwritable;
    std::uint64_t sectors_of_target = UINT64_MAX; // those past them cannot be read
    // Whether a read of data that fails returns no negative result and leaves the buffer alone.
    bool fails_silently = false;

    std::vector<sector_write> writes; // in order, those that succeeded
    std::string printed;              // source lines as N

    // The sector as it is now, whether it can be read or not.
    const bytes &sector(std::uint64_t number) {
        if (recent_bytes_ == nullptr || number != recent_) {
            (void)sector_to_change(number);
        }
        return *recent_bytes_;
    }
    // The sectors that were read or written so far.
    [[nodiscard]] std::vector<std::uint64_t> known_sectors() const {
        std::vector<std::uint64_t> result;
        for (const auto &[number, content] : sectors_) {
            result.push_back(number);
        }
        return result;
    }
    raw_entry entry_at(const location &where) {
        raw_entry result = {};
        std::copy_n(sector(where.sector).begin() + where.offset, result.size(), result.begin());
        return result;
    }

protected:
    [[nodiscard]] bool can_read(std::uint64_t number) const {
        return number < sectors_of_target && !unreadable.contains(number);
    }
    bool write(std::uint64_t number, bytes content) {
        if (unwritable.contains(number)) {
            return false;
        }
        writes.push_back({number, content});
        sector_to_change(number) = std::move(content);
        return true;
    }
    int fail(int result, const char *function, const std::string &message) {
        printed += function;
        printed += "[N]: ";
        printed += message;
        return result;
    }

private:
    bytes &sector_to_change(std::uint64_t number) {
        auto [slot, is_new] = sectors_.try_emplace(number);
        if (is_new) {
            slot->second = initial_(number * shape.sector_bytes, shape.sector_bytes);
        }
        recent_ = number;
        recent_bytes_ = &slot->second;
        return slot->second;
    }

    reader initial_;
    std::unordered_map<std::uint64_t, bytes> sectors_;
    std::uint64_t recent_ = 0;
    bytes *recent_bytes_ = nullptr; // of sectors_
};

} // namespace model
