// A medium in memory, below read_sectors and write_sectors: it logs its transfers and fails on
// request.

#pragma once

#include "fat/fat.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <ostream>
#include <set>
#include <utility>
#include <vector>

namespace testing_support {

struct transfer {
    bool is_write;
    std::uint64_t sector;
    std::uint32_t count;
    bool operator==(const transfer &) const = default;
};
inline std::ostream &operator<<(std::ostream &stream, const transfer &t) {
    return stream << (t.is_write ? "write " : "read ") << t.sector << " + " << t.count;
}

// The one open volume: its constructor creates `sv` (zero geometry, descriptor -1), its destructor
// frees it. Unwritten bytes read as the fill byte, or as a background that a function paints.
class ram_disk {
public:
    static constexpr std::size_t BLOCK = 4096;

    // Paints the BLOCK bytes of block `number`, the bytes from number x BLOCK on.
    using background = std::function<void(std::uint64_t number, std::uint8_t *block)>;

    explicit ram_disk(std::uint64_t size, std::uint8_t fill = 0)
        : ram_disk(size, [fill](std::uint64_t, std::uint8_t *block) {
              std::memset(block, fill, BLOCK);
          }) {}
    ram_disk(std::uint64_t size, background painter) : painter_(std::move(painter)) {
        sv = static_cast<fat_super *>(std::calloc(1, sizeof(fat_super)));
        sv->fd = -1;
        sv->vol_size = size;
        use();
    }
    ram_disk(const ram_disk &) = delete;
    ram_disk &operator=(const ram_disk &) = delete;
    ~ram_disk() {
        if (sv != nullptr) {
            fat_close_volume(0);
        }
        current() = nullptr;
    }

    // The disk that the library's transfers reach.
    [[nodiscard]] static ram_disk *in_use() {
        return current();
    }
    // Points the library's transfers at this disk again.
    void use() {
        current() = this;
        read_sectors = read;
        write_sectors = write;
    }

    std::vector<transfer> log;
    int reads_before_failure = -1;  // -1: never fails
    int writes_before_failure = -1; // likewise
    int failure_result = -5;        // result of a failing transfer; if positive, sectors it moves
    bool fails_forever = false;
    int ordered_failures = 0;            // transfers that failed by the countdowns
    std::set<std::uint64_t> bad_sectors; // transfers that touch one of these always fail
    std::set<std::uint64_t> unreadable;  // reads that do
    std::set<std::uint64_t> unwritable;  // writes that do

    // Reads or writes the bytes from `offset` on directly.
    std::vector<std::uint8_t> peek(std::uint64_t offset, std::size_t size) {
        std::vector<std::uint8_t> result(size);
        for (std::size_t i = 0; i < size;) {
            const std::size_t part = part_in_block(offset + i, size - i);
            std::memcpy(&result[i], &block_of(offset + i)[(offset + i) % BLOCK], part);
            i += part;
        }
        return result;
    }
    void poke(std::uint64_t offset, const std::vector<std::uint8_t> &content) {
        for (std::size_t i = 0; i < content.size();) {
            const std::size_t part = part_in_block(offset + i, content.size() - i);
            std::memcpy(&block_to_change(offset + i)[(offset + i) % BLOCK], &content[i], part);
            i += part;
        }
    }

    // From now on retains the old bytes: peek_before() returns the disk as it is now.
    void remember() {
        before_.clear();
        remembers_ = true;
    }
    std::vector<std::uint8_t> peek_before(std::uint64_t offset, std::size_t size) {
        std::vector<std::uint8_t> result(size);
        for (std::size_t i = 0; i < size;) {
            const std::size_t part = part_in_block(offset + i, size - i);
            const auto old = before_.find((offset + i) / BLOCK);
            const auto &block = old != before_.end() ? old->second : block_of(offset + i);
            std::memcpy(&result[i], &block[(offset + i) % BLOCK], part);
            i += part;
        }
        return result;
    }
    // The numbers of the blocks that were written since remember(), ascending.
    [[nodiscard]] std::vector<std::uint64_t> written_blocks() const {
        std::vector<std::uint64_t> result;
        for (const auto &[number, block] : before_) {
            result.push_back(number);
        }
        return result;
    }

    // The numbers of the blocks that were written since the last call, by a transfer or by poke().
    std::set<std::uint64_t> take_changed_blocks() {
        return std::exchange(changed_, {});
    }

    // The numbers of the blocks that were read or written, ascending. All others have not changed.
    [[nodiscard]] std::vector<std::uint64_t> known_blocks() const {
        std::vector<std::uint64_t> result;
        for (const auto &[number, block] : blocks_) {
            result.push_back(number);
        }
        return result;
    }
    [[nodiscard]] const std::uint8_t *block(std::uint64_t number) {
        return block_of(number * BLOCK).data();
    }

private:
    static ram_disk *&current() {
        static ram_disk *disk = nullptr;
        return disk;
    }
    static std::uint64_t unit() {
        return sv->sector_size != 0 ? sv->sector_size : 4096;
    }
    bool fails(int *before_failure) {
        if (*before_failure < 0) {
            return false;
        }
        if (*before_failure == 0) {
            ordered_failures++;
            if (!fails_forever) {
                *before_failure = -1;
            }
            return true;
        }
        (*before_failure)--;
        return false;
    }
    static bool touches(const std::set<std::uint64_t> &sectors, std::uint64_t sector,
                        std::uint32_t count) {
        const auto first = sectors.lower_bound(sector);
        return first != sectors.end() && *first - sector < count;
    }
    static std::size_t part_in_block(std::uint64_t offset, std::size_t size) {
        return std::min<std::size_t>(BLOCK - static_cast<std::size_t>(offset % BLOCK), size);
    }
    static int read(void *buf, std::uint64_t sector, std::uint32_t count) {
        ram_disk &disk = *current();
        disk.log.push_back({false, sector, count});
        if (disk.fails(&disk.reads_before_failure) || touches(disk.bad_sectors, sector, count) ||
            touches(disk.unreadable, sector, count)) {
            disk.move_some(buf, sector, count, false);
            return disk.failure_result;
        }
        return disk.move(static_cast<std::uint8_t *>(buf), sector, count, false);
    }
    static int write(void *buf, std::uint64_t sector, std::uint32_t count) {
        ram_disk &disk = *current();
        disk.log.push_back({true, sector, count});
        if (disk.fails(&disk.writes_before_failure) || touches(disk.bad_sectors, sector, count) ||
            touches(disk.unwritable, sector, count)) {
            disk.move_some(buf, sector, count, true);
            return disk.failure_result;
        }
        return disk.move(static_cast<std::uint8_t *>(buf), sector, count, true);
    }
    void move_some(void *buf, std::uint64_t sector, std::uint32_t count, bool is_write) {
        if (failure_result > 0) {
            const auto moved = static_cast<std::uint32_t>(failure_result);
            move(static_cast<std::uint8_t *>(buf), sector, std::min(count, moved), is_write);
        }
    }
    // Transfers whole sectors inside the disk; sectors past its end are not moved.
    int move(std::uint8_t *buf, std::uint64_t sector, std::uint32_t count, bool is_write) {
        const std::uint64_t sectors = sv->vol_size / unit();
        const std::uint64_t left = sector < sectors ? sectors - sector : 0;
        const std::uint64_t moved = count < left ? count : left;
        for (std::uint64_t done = 0; done < moved * unit();) {
            const std::uint64_t at = sector * unit() + done;
            const std::size_t inside = at % BLOCK;
            const std::size_t part = static_cast<std::size_t>(
                std::min<std::uint64_t>(BLOCK - inside, moved * unit() - done));
            std::uint8_t *block = (is_write ? block_to_change(at) : block_of(at)).data() + inside;
            if (is_write) {
                std::memcpy(block, buf + done, part);
            } else {
                std::memcpy(buf + done, block, part);
            }
            done += part;
        }
        return static_cast<int>(moved);
    }
    std::vector<std::uint8_t> &block_of(std::uint64_t offset) {
        auto [place, is_new] = blocks_.try_emplace(offset / BLOCK);
        if (is_new) {
            place->second.resize(BLOCK);
            painter_(offset / BLOCK, place->second.data());
        }
        return place->second;
    }
    std::vector<std::uint8_t> &block_to_change(std::uint64_t offset) {
        std::vector<std::uint8_t> &block = block_of(offset);
        if (remembers_) {
            before_.try_emplace(offset / BLOCK, block);
        }
        changed_.insert(offset / BLOCK);
        return block;
    }

    background painter_;
    std::map<std::uint64_t, std::vector<std::uint8_t>> blocks_;
    std::map<std::uint64_t, std::vector<std::uint8_t>> before_; // of the blocks written since
    bool remembers_ = false;
    std::set<std::uint64_t> changed_;
};

} // namespace testing_support
