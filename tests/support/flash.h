// A NAND flash between the library and the medium: counts the cost of its writes, and delays them
// until they are synchronised, so that a power failure can drop and reorder them.

#pragma once

#include "fat/fat.h"

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace testing_support {

struct flash_geometry {
    std::uint32_t page_size;
    std::uint32_t pages_per_block;
};

// The cost of writes on a flash that programs whole pages. Its block driver caches one erase block
// in memory and writes it back when another block is written.
struct flash_cost {
    std::uint64_t page_programs = 0; // pages touched, each time a write touches them
    std::uint64_t torn_pages = 0;    // of these, pages that the write covered in part
    std::uint64_t block_rewrites = 0;
};

// Intercepts write_sectors during its lifetime.
class flash {
public:
    explicit flash(const flash_geometry &geometry) : geometry_(geometry) {
        medium() = write_sectors;
        current() = this;
        write_sectors = write;
    }
    flash(const flash &) = delete;
    flash &operator=(const flash &) = delete;
    ~flash() {
        write_sectors = medium();
        current() = nullptr;
    }

    // The cost since the last call, the block still in memory included.
    flash_cost take_cost() {
        flash_cost result = cost_;
        result.block_rewrites += cached_block_ != NO_BLOCK ? 1 : 0;
        cost_ = {};
        cached_block_ = NO_BLOCK;
        return result;
    }

    // The ranges written since the last call: byte offsets, the end not included.
    struct range {
        std::uint64_t begin;
        std::uint64_t end;
    };
    std::vector<range> take_ranges() {
        return std::exchange(ranges_, {});
    }

    // From now on also records the writes in a list, sector by sector.
    void record() {
        held_.clear();
        records_ = true;
    }
    struct held_write {
        std::uint64_t sector;
        std::vector<std::uint8_t> content;
    };
    std::vector<held_write> take_held() {
        records_ = false;
        return std::exchange(held_, {});
    }

private:
    static constexpr std::uint64_t NO_BLOCK = ~std::uint64_t{0};

    static flash *&current() {
        static flash *instance = nullptr;
        return instance;
    }
    static fat_sector_io &medium() {
        static fat_sector_io transfer = nullptr;
        return transfer;
    }
    static int write(void *buf, std::uint64_t sector, std::uint32_t count) {
        current()->count(sector * sv->sector_size, (sector + count) * sv->sector_size);
        current()->hold(static_cast<const std::uint8_t *>(buf), sector, count);
        return medium()(buf, sector, count);
    }
    void count(std::uint64_t begin, std::uint64_t end) {
        ranges_.push_back({begin, end});
        const std::uint64_t size = geometry_.page_size;
        for (std::uint64_t page = begin / size; page * size < end; page++) {
            cost_.page_programs++;
            const bool is_whole = page * size >= begin && (page + 1) * size <= end;
            cost_.torn_pages += is_whole ? 0 : 1;
            const std::uint64_t block = page / geometry_.pages_per_block;
            cost_.block_rewrites += cached_block_ != NO_BLOCK && cached_block_ != block ? 1 : 0;
            cached_block_ = block;
        }
    }
    void hold(const std::uint8_t *data, std::uint64_t sector, std::uint32_t count) {
        for (std::uint32_t i = 0; records_ && i < count; i++) {
            const std::uint8_t *begin = data + std::size_t{i} * sv->sector_size;
            held_.push_back({sector + i, {begin, begin + sv->sector_size}});
        }
    }

    flash_geometry geometry_;
    flash_cost cost_;
    std::uint64_t cached_block_ = NO_BLOCK;
    std::vector<range> ranges_;
    bool records_ = false;
    std::vector<held_write> held_;
};

} // namespace testing_support
