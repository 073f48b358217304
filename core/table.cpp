#include "core/table.h"

#include <algorithm>

namespace core {

namespace {

// The sector of a byte of the FAT and its offset there.
struct entry_position {
    u64 sector;
    u32 offset;
};

entry_position locate_byte(const volume &of, u64 position) {
    return {of.at.fat_start + position / of.at.sector_size,
            static_cast<u32>(position % of.at.sector_size)};
}

// The first byte of a FAT entry.
entry_position locate(const volume &of, u32 index) {
    return locate_byte(of, of.entry_offset(index));
}

// Whether each FAT entry has bytes of its own.
bool has_whole_bytes(const volume &of) {
    return of.at.width == 16 || of.at.width == 32;
}

// Whether an entry of FAT12 lies in two sectors.
bool straddles(const volume &of, u32 index) {
    return of.at.width == 12 && locate(of, index).offset == of.at.sector_size - 1;
}

// Zero if `COUNT` consecutive FAT entries have the values `value`, `value` + 1 and so on. Without a
// branch in the loop, compilers turn this into wide operations.
template <u32 ENTRY_SIZE, u32 COUNT>
u32 difference(const u8 *row, u32 value) {
    u32 result = 0;
    for (u32 i = 0; i < COUNT; i++) {
        // cppcheck-suppress redundantInitialization; it takes the variables of all rounds for one
        const u8 *at = row + std::size_t{i} * ENTRY_SIZE;
        const u32 found =
            ENTRY_SIZE == FAT16_ENTRY_SIZE ? load16(at) : load32(at) & FAT32_VALUE_MASK;
        result |= found ^ (value + i);
    }
    return result;
}

// Number of FAT entries from `entry` on, at most `limit`, with the values `value`, `value` + 1 and
// so on.
template <u32 ENTRY_SIZE>
u32 count_ascending(const u8 *entry, u32 value, u32 limit) {
    constexpr u32 BLOCK = 64;
    u32 count = 0;
    while (limit - count >= BLOCK && difference<ENTRY_SIZE, BLOCK>(entry, value + count) == 0) {
        count += BLOCK;
        entry += std::size_t{BLOCK} * ENTRY_SIZE;
    }
    while (count < limit && difference<ENTRY_SIZE, 1>(entry, value + count) == 0) {
        count++;
        entry += ENTRY_SIZE;
    }
    return count;
}

// The fault of a transfer, as one of the FAT.
fault of_table(fault why) {
    switch (why) {
    case fault::NO_MEMORY:
        return fault::TABLE_MEMORY;
    case fault::READ:
        return fault::TABLE_READ;
    default:
        return why;
    }
}

fault check_geometry(const volume &of) {
    if (of.at.sector_size == 0) {
        return fault::NO_GEOMETRY;
    }
    return of.at.width == 12 || has_whole_bytes(of) ? fault::NONE : fault::WIDTH;
}

} // namespace

u32 load_entry(u32 width, u32 index, const u8 *entry) {
    if (width == 12) {
        return index % 2 == 0 ? load16(entry) & FAT12_VALUE_MASK : load16(entry) >> 4U;
    }
    return width == 16 ? load16(entry) : load32(entry) & FAT32_VALUE_MASK;
}

void store_entry(u32 width, u32 index, u8 *entry, u32 value) {
    if (width == 12) {
        const u32 shift = index % 2 == 0 ? 0 : 4;
        const u32 neighbour = load16(entry) & ~(FAT12_VALUE_MASK << shift);
        store16(entry, static_cast<u16>(neighbour | (value & FAT12_VALUE_MASK) << shift));
    } else if (width == 16) {
        store16(entry, static_cast<u16>(value & FAT16_VALUE_MASK));
    } else {
        const u32 reserved = load32(entry) & ~FAT32_VALUE_MASK;
        store32(entry, reserved | (value & FAT32_VALUE_MASK));
    }
}

// ---- reading ----------------------------------------------------------------------------------

// Number of FAT sectors to read together. A walk begins with single sectors, since most walks end
// soon; one that continues in ascending order reads as many again as it has visited.
u32 table::sectors_to_read(u64 sector) const {
    constexpr u32 SINGLE_SECTORS = 4;
    const u64 fat_end = static_cast<u64>(of_.at.fat_start) + of_.at.fat_sectors;
    if (in_order_ < SINGLE_SECTORS || sector >= fat_end) {
        return 1;
    }
    return static_cast<u32>(std::min<u64>(in_order_, fat_end - sector));
}

fault table::fill(sector_window *window, u64 sector) {
    if (window->find(sector) != nullptr) {
        return fault::NONE;
    }
    const bool continues = window->count() > 0 && sector == window->end();
    in_order_ = continues ? in_order_ + window->count() : 0;
    if (window->read_ahead(of_, sector, sectors_to_read(sector))) {
        return fault::NONE;
    }
    return of_table(window->load(of_, sector));
}

fault table::load(sector_window *window, u32 index, u32 *value) {
    const entry_position at = locate(of_, index);
    const fault filled = fill(window, at.sector);
    if (filled == fault::NONE) {
        *value = load_entry(of_.at.width, index, window->find(at.sector) + at.offset);
    }
    return filled;
}

fault table::load_straddling(u32 index, u8 *both) {
    for (u32 i = 0; i < 2; i++) {
        const entry_position at = locate_byte(of_, of_.entry_offset(index) + i);
        sector_window *const window = changed_.find(at.sector) != nullptr ? &changed_ : &clean_;
        const fault filled = fill(window, at.sector);
        if (filled != fault::NONE) {
            return filled;
        }
        both[i] = window->find(at.sector)[at.offset];
    }
    return fault::NONE;
}

result<u32> table::value(u32 index) {
    fault why = check_geometry(of_);
    if (why != fault::NONE) {
        return why;
    }
    if (straddles(of_, index)) {
        u8 both[FAT32_ENTRY_SIZE] = {}; // two bytes of FAT12
        why = load_straddling(index, both);
        return why == fault::NONE ? result<u32>(load_entry(of_.at.width, index, both)) : why;
    }
    const bool is_changed = changed_.find(locate(of_, index).sector) != nullptr;
    u32 found = FAT_FREE;
    why = load(is_changed ? &changed_ : &clean_, index, &found);
    if (why != fault::NONE) {
        return why;
    }
    return found;
}

fault table::load_link(u32 cluster, u32 *value) {
    if (!of_.is_data_cluster(cluster)) {
        return fault::CLUSTER_NUMBER;
    }
    const result<u32> loaded = this->value(cluster);
    if (!loaded.ok()) {
        return loaded.why;
    }
    *value = loaded.value;
    const link_kind kind = of_.kind_of_link(*value);
    return kind == link_kind::BAD || kind == link_kind::OUTSIDE ? fault::LINK_VALUE : fault::NONE;
}

result<u32> table::link(u32 cluster) {
    u32 next = FAT_FREE;
    const fault why = load_link(cluster, &next);
    if (why == fault::NONE) {
        return next;
    }
    const fault flushed = flush();
    return flushed != fault::NONE ? flushed : why;
}

u32 table::contiguous_links(u32 cluster, u32 max_links) const {
    if (is_dirty_ || !of_.is_data_cluster(cluster) || !has_whole_bytes(of_)) {
        return 0;
    }
    const entry_position at = locate(of_, cluster);
    const u8 *entry = clean_.find(at.sector);
    if (entry == nullptr) {
        return 0;
    }
    entry += at.offset;
    const u64 known_bytes = (clean_.end() - at.sector) * of_.at.sector_size;
    const u32 known = static_cast<u32>(known_bytes - at.offset) / (of_.at.width / 8);
    const u32 highest = std::min(of_.last_cluster(), of_.bad_mark() - 1);
    const u32 limit = std::min({max_links, known, highest - std::min(cluster, highest)});
    return of_.at.width == 16 ? count_ascending<FAT16_ENTRY_SIZE>(entry, cluster + 1, limit)
                              : count_ascending<FAT32_ENTRY_SIZE>(entry, cluster + 1, limit);
}

result<u32> table::find_free(u32 first, u32 last, u32 *stopped_at) {
    for (u64 cluster = first; cluster <= last; cluster++) {
        const u32 number = static_cast<u32>(cluster);
        const result<u32> next = link(number);
        if (!next.ok()) {
            if (stopped_at != nullptr) {
                *stopped_at = number;
            }
            return next.why;
        }
        if (next.value == FAT_FREE) {
            return number;
        }
    }
    return fault::NO_SPACE;
}

// ---- changing ---------------------------------------------------------------------------------

// Makes `sector` the one being changed, after writing the changes of the previous one.
fault table::select(u64 sector) {
    if (changed_.find(sector) != nullptr) {
        return fault::NONE;
    }
    const fault flushed = flush();
    if (flushed != fault::NONE) {
        return flushed;
    }
    const u8 *known = clean_.find(sector);
    if (known == nullptr) {
        return of_table(changed_.load(of_, sector));
    }
    if (!changed_.reserve(of_)) {
        return fault::TABLE_MEMORY;
    }
    changed_.set(sector, known);
    return fault::NONE;
}

fault table::set(u32 index, u32 value) {
    fault why = check_geometry(of_);
    if (why != fault::NONE) {
        return why;
    }
    if (straddles(of_, index)) {
        return set_straddling(index, value);
    }
    const entry_position at = locate(of_, index);
    why = select(at.sector);
    if (why != fault::NONE) {
        return why;
    }
    store_entry(of_.at.width, index, changed_.find(at.sector) + at.offset, value);
    return keep_change();
}

// The sector being changed is written now or later.
fault table::keep_change() {
    if (!is_dirty_ && !write_failed_) {
        dirty_since_step_ = step_;
    }
    is_dirty_ = true;
    return when_ == writing::LATE ? fault::NONE : flush();
}

fault table::set_straddling(u32 index, u32 value) {
    u8 both[FAT32_ENTRY_SIZE] = {}; // two bytes of FAT12
    fault why = load_straddling(index, both);
    store_entry(of_.at.width, index, both, value);
    for (u32 i = 0; i < 2 && why == fault::NONE; i++) {
        const entry_position at = locate_byte(of_, of_.entry_offset(index) + i);
        why = select(at.sector);
        if (why == fault::NONE) {
            changed_.find(at.sector)[at.offset] = both[i];
            why = keep_change();
        }
    }
    return why;
}

u32 table::link_following(u32 cluster, u32 limit) {
    const entry_position at = locate(of_, cluster);
    u8 *entry = is_dirty_ ? changed_.find(at.sector) : nullptr;
    if (entry == nullptr || !of_.is_data_cluster(cluster) || !has_whole_bytes(of_)) {
        return 0;
    }
    const u32 size = of_.at.width / 8;
    const u32 in_sector = (of_.at.sector_size - at.offset) / size - 1;
    limit = std::min({limit, in_sector, of_.last_cluster() - cluster});
    u32 count = 0;
    entry += at.offset;
    for (; count < limit && load_entry(of_.at.width, 0, entry + size) == FAT_FREE; entry += size) {
        count++;
        store_entry(of_.at.width, 0, entry, cluster + count);
    }
    if (count > 0) {
        store_entry(of_.at.width, 0, entry, FAT_END_MARK);
    }
    return count;
}

fault table::flush() {
    if (!is_dirty_) {
        return fault::NONE;
    }
    is_dirty_ = false;
    const u64 sector = changed_.end() - 1;
    const u8 *content = changed_.find(sector);
    if (of_.write(sector, content, 1) != 1) {
        // The content of the sector on the medium is now unknown.
        write_failed_ = true;
        changed_.clear();
        clean_.forget(sector);
        return fault::TABLE_WRITE;
    }
    clean_.refresh(sector, content);
    return fault::NONE;
}

} // namespace core
