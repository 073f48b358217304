// Single entries of the first FAT of the open volume, and links followed through them.
//
// Intentional: only the first FAT is read and written; the other copies do not change after
// formatting. Nothing is cached from one public call to the next. Within a call a window contains
// the FAT sectors read last: a walk reads each sector once as long as it stays in it, and several
// sectors together when it visits the FAT in ascending order.

#include "fat/internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace fat {

namespace {

u32 entry_size() {
    return sv->fat_type == 16 ? FAT16_ENTRY_SIZE : FAT32_ENTRY_SIZE;
}

bool is_fat_type_known() {
    return sv->fat_type == 16 || sv->fat_type == 32;
}

// The sector of a FAT entry and its byte offset there. Entries never straddle sectors.
struct entry_position {
    u64 sector;
    u32 offset;
};

entry_position locate_entry(u32 cluster) {
    const u64 position = static_cast<u64>(cluster) * entry_size();
    return {sv->fat_start + position / sv->sector_size,
            static_cast<u32>(position % sv->sector_size)};
}

u32 load_entry(const u8 *entry) {
    return sv->fat_type == 16 ? load16(entry) : load32(entry) & FAT32_VALUE_MASK;
}

// Loads that one sector into the window. Returns 0, -ENOMEM or -EIO, which the caller reports.
int load_sector(sector_window *window, u64 sector) {
    if (!reserve_sector(window)) {
        return -ENOMEM;
    }
    window->count = 0;
    if (read_sectors(window->buffer.get(), sector, 1) != 1) {
        return -EIO;
    }
    window->first = sector;
    window->count = 1;
    return 0;
}

// Number of FAT sectors that a walk reads together. A walk begins with single sectors, since most
// walks end soon; one that continues in ascending order reads as many again as it has visited.
u32 sectors_to_read(const sector_window &window, u64 sector) {
    constexpr u32 SINGLE_SECTORS = 4;
    const u64 fat_end = static_cast<u64>(sv->fat_start) + sv->fat_size;
    if (window.in_order < SINGLE_SECTORS || sector >= fat_end) {
        return 1;
    }
    return static_cast<u32>(std::min<u64>(window.in_order, fat_end - sector));
}

// The same for a walk: the window may already contain the sector, and more sectors are read ahead.
int fill_window(sector_window *window, u64 sector) {
    if (window->find(sector) != nullptr) {
        return 0;
    }
    const bool continues = window->count > 0 && sector == window->first + window->count;
    window->in_order = continues ? window->in_order + window->count : 0;
    if (read_ahead(window, sector, sectors_to_read(*window, sector))) {
        return 0;
    }
    return load_sector(window, sector);
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

// Why an entry cannot be read or followed. Reporting is a separate step, because deferred changes
// may have to reach the medium before.
enum class link_fault { NONE, NO_VOLUME, FAT_TYPE, MEMORY, READ, NUMBER, VALUE };

link_fault load_value(sector_window *window, u32 cluster, u32 *value) {
    if (sv == nullptr || sv->sector_size == 0 || value == nullptr) {
        return link_fault::NO_VOLUME;
    }
    if (!is_fat_type_known()) {
        return link_fault::FAT_TYPE;
    }
    const entry_position at = locate_entry(cluster);
    const int filled = fill_window(window, at.sector);
    if (filled < 0) {
        return filled == -ENOMEM ? link_fault::MEMORY : link_fault::READ;
    }
    *value = load_entry(window->find(at.sector) + at.offset);
    return link_fault::NONE;
}

link_fault load_link(sector_window *window, u32 cluster, u32 *value) {
    if (!is_data_cluster(cluster)) {
        return link_fault::NUMBER;
    }
    const link_fault fault = load_value(window, cluster, value);
    if (fault != link_fault::NONE || *value == FAT_FREE || is_end_of_chain(*value)) {
        return fault;
    }
    // A bad-cluster mark is not a link, even if a hostile geometry has that many clusters.
    return is_data_cluster(*value) && *value != bad_mark() ? link_fault::NONE : link_fault::VALUE;
}

// Reports the fault in the name of the operation that failed. Returns its errno.
int report_fault(link_fault fault, u32 cluster) {
    switch (fault) {
    case link_fault::NONE:
        return 0;
    case link_fault::NO_VOLUME:
        report_at("fat_read_entry", __LINE__, "Invalid input: sector_size(%d) n_clu(%d)\n",
                  sv == nullptr ? 0 : static_cast<int>(sv->sector_size), static_cast<int>(cluster));
        return -EINVAL;
    case link_fault::FAT_TYPE:
        report_at("fat_read_entry", __LINE__, "Invalid FAT type\n\n");
        return -EINVAL;
    case link_fault::MEMORY:
        report_at("fat_read_entry", __LINE__, "cannot allocate FAT\n\n");
        return -ENOMEM;
    case link_fault::READ:
        report_at("fat_read_entry", __LINE__, "cannot read FAT\n\n");
        return -EIO;
    case link_fault::NUMBER:
        report_at("fat_read_clus", __LINE__, "Invalid arg!\n\n");
        return -EINVAL;
    case link_fault::VALUE:
        report_at("fat_read_clus", __LINE__, "Invalid cluster!\n\n");
        return -EINVAL;
    }
    return -EINVAL;
}

// Loads a sector that is about to be changed, from the clean sectors if it is among them. Returns
// 0, -ENOMEM, or -EIO if it cannot be read.
int load_dirty_sector(fat_buffer *fat, u64 sector) {
    const u8 *clean_sectors = fat->clean_sectors.find(sector);
    if (clean_sectors == nullptr) {
        return load_sector(&fat->dirty_sector, sector);
    }
    if (!reserve_sector(&fat->dirty_sector)) {
        return -ENOMEM;
    }
    std::memcpy(fat->dirty_sector.buffer.get(), clean_sectors, sv->sector_size);
    fat->dirty_sector.first = sector;
    fat->dirty_sector.count = 1;
    return 0;
}

// Makes `sector` the dirty sector, after writing the changes of the previous one.
int select_sector(fat_buffer *fat, u64 sector) {
    if (fat->dirty_sector.find(sector) != nullptr) {
        return 0;
    }
    const int flushed = flush_fat(fat);
    if (flushed < 0) {
        return flushed;
    }
    const int loaded = load_dirty_sector(fat, sector);
    if (loaded == -ENOMEM) {
        report_at("fat_write_entry", __LINE__, "cannot allocate buffer\n\n");
    } else if (loaded < 0) {
        report_at("fat_write_entry", __LINE__, "cannot read FAT\n");
    }
    return loaded;
}

} // namespace

bool is_data_cluster(u32 cluster) {
    return cluster >= FIRST_DATA_CLUSTER && cluster - FIRST_DATA_CLUSTER < sv->num_clusters;
}

bool is_end_of_chain(u32 value) {
    return value >= (sv->fat_type == 32 ? FAT32_END : FAT16_END);
}

u32 bad_mark() {
    return sv->fat_type == 32 ? FAT32_BAD : FAT16_BAD;
}

// ---- entries ----------------------------------------------------------------------------------

int fat_read_entry(u32 cluster, u32 *value) {
    sector_window window;
    return report_fault(load_value(&window, cluster, value), cluster);
}

int write_entry(fat_buffer *fat, u32 cluster, u32 value) {
    if (sv == nullptr || sv->sector_size == 0) {
        report_at("fat_write_entry", __LINE__, "Invalid: sector size is not set\n\n");
        return -EINVAL;
    }
    if (!is_fat_type_known()) {
        report_at("fat_write_entry", __LINE__, "Invalid FAT type\n");
        return -EINVAL;
    }
    const entry_position at = locate_entry(cluster);
    const int moved = select_sector(fat, at.sector);
    if (moved < 0) {
        return moved;
    }
    // The entry itself is index 0 of the table that begins there.
    (void)set_fat_entry(sv->fat_type, fat->dirty_sector.buffer.get() + at.offset, 0, value);
    if (!fat->needs_flush && !fat->write_failed) {
        fat->dirty_since_step = fat->step;
    }
    fat->needs_flush = true;
    return fat->defers_writes ? 0 : flush_fat(fat);
}

int flush_fat(fat_buffer *fat) {
    if (!fat->needs_flush) {
        return 0;
    }
    fat->needs_flush = false;
    const u64 sector = fat->dirty_sector.first;
    if (write_sectors(fat->dirty_sector.buffer.get(), sector, 1) != 1) {
        // The content of the sector on the medium is now unknown.
        fat->write_failed = true;
        fat->dirty_sector.count = 0;
        forget_sector(&fat->clean_sectors, sector);
        report_at("fat_write_entry", __LINE__, "cannot write FAT\n\n");
        return -EIO;
    }
    refresh_sector(&fat->clean_sectors, sector, fat->dirty_sector.buffer.get());
    return 0;
}

int fat_write_entry(u32 cluster, u32 value) {
    fat_buffer fat;
    return write_entry(&fat, cluster, value);
}

// ---- links ------------------------------------------------------------------------------------

int follow_link(sector_window *fat, u32 cluster) {
    u32 value = FAT_FREE;
    const link_fault fault = load_link(fat, cluster, &value);
    return fault == link_fault::NONE ? static_cast<int>(value) : report_fault(fault, cluster);
}

int follow_link(fat_buffer *fat, u32 cluster) {
    const bool is_dirty = fat->dirty_sector.count != 0 &&
                          fat->dirty_sector.find(locate_entry(cluster).sector) != nullptr;
    u32 value = FAT_FREE;
    const link_fault fault =
        load_link(is_dirty ? &fat->dirty_sector : &fat->clean_sectors, cluster, &value);
    if (fault == link_fault::NONE) {
        return static_cast<int>(value);
    }
    const int flushed = flush_fat(fat);
    return flushed < 0 ? flushed : report_fault(fault, cluster);
}

u32 count_contiguous_links(const sector_window &fat, u32 cluster, u32 max_links) {
    if (!is_data_cluster(cluster)) {
        return 0;
    }
    const entry_position at = locate_entry(cluster);
    const u8 *entry = fat.find(at.sector);
    if (entry == nullptr) {
        return 0;
    }
    entry += at.offset;
    const u64 window_bytes = (fat.first + fat.count - at.sector) * sv->sector_size;
    const u32 in_window = static_cast<u32>(window_bytes - at.offset) / entry_size();
    const u32 highest = std::min(sv->num_clusters + 1, bad_mark() - 1);
    const u32 limit = std::min({max_links, in_window, highest - std::min(cluster, highest)});
    return sv->fat_type == 16 ? count_ascending<FAT16_ENTRY_SIZE>(entry, cluster + 1, limit)
                              : count_ascending<FAT32_ENTRY_SIZE>(entry, cluster + 1, limit);
}

int fat_read_clus(u32 cluster) {
    sector_window window;
    return follow_link(&window, cluster);
}

int find_free(fat_buffer *fat, u32 first, u32 last) {
    for (u64 cluster = first; cluster <= last; cluster++) {
        const int value = follow_link(fat, static_cast<u32>(cluster));
        if (value < 0) {
            if (!fat->write_failed) {
                report_at("fat_free_clus", __LINE__, "Invalid cluster value!\n\n");
            }
            return value;
        }
        if (value == 0) {
            return static_cast<int>(cluster);
        }
    }
    return -ENOENT;
}

int fat_free_clus(u32 first, u32 last) {
    fat_buffer fat;
    return find_free(&fat, first, last);
}

u32 fat_sector(u32 cluster) {
    if (!is_data_cluster(cluster)) {
        REPORT("Invalid arg!\n\n");
        return 0;
    }
    const u64 sector =
        sv->data_start + static_cast<u64>(cluster - FIRST_DATA_CLUSTER) * sv->sec_per_clus;
    return sector < sv->total_sectors ? static_cast<u32>(sector) : 0;
}

bool cycle_detector::closes_cycle(u32 cluster) {
    return closes_cycle_within(cluster, 1);
}

bool cycle_detector::closes_cycle_within(u32 first, u32 count) {
    while (count > 0) {
        const u32 to_next_anchor = span - steps + 1;
        const u32 batch = std::min(count, to_next_anchor);
        if (has_anchor && anchor >= first && anchor - first < batch) {
            return true;
        }
        first += batch;
        count -= batch;
        steps += batch;
        if (batch == to_next_anchor) {
            anchor = first - 1;
            has_anchor = true;
            span *= 2;
            steps = 1;
        }
    }
    return false;
}

} // namespace fat
