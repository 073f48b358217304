// Single entries of the first FAT of the open volume, and links followed through them.
//
// Only the first FAT is read and written; the other copies keep the state that formatting gave
// them. Nothing is remembered from one public call to the next. Inside a call a window keeps the
// FAT sectors last read, so that a walk reads each sector once while it stays in it, and several
// together where it goes through the FAT in order.

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
struct entry_place {
    u64 sector;
    u32 offset;
};

entry_place place_of(u32 cluster) {
    const u64 position = static_cast<u64>(cluster) * entry_size();
    return {sv->fat_start + position / sv->sector_size,
            static_cast<u32>(position % sv->sector_size)};
}

u32 load_entry(const u8 *entry) {
    return sv->fat_type == 16 ? load16(entry) : load32(entry) & FAT32_VALUE_MASK;
}

// Makes the window hold that one sector. Returns 0, -ENOMEM or -EIO; telling so is the caller's
// part.
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

// How many sectors of the FAT a walk reads together. It begins with single ones, since most walks
// end soon; one that goes on in order reads as many again as it has passed.
u32 sectors_to_read(const sector_window &window, u64 sector) {
    constexpr u32 SINGLE_SECTORS = 4;
    const u64 behind_fat = static_cast<u64>(sv->fat_start) + sv->fat_size;
    if (window.in_order < SINGLE_SECTORS || sector >= behind_fat) {
        return 1;
    }
    return static_cast<u32>(std::min<u64>(window.in_order, behind_fat - sector));
}

// The same for a walk, which may find more sectors of the FAT in the window.
int fill_window(sector_window *window, u64 sector) {
    if (window->find(sector) != nullptr) {
        return 0;
    }
    const bool goes_on = window->count > 0 && sector == window->first + window->count;
    window->in_order = goes_on ? window->in_order + window->count : 0;
    if (read_ahead(window, sector, sectors_to_read(*window, sector))) {
        return 0;
    }
    return load_sector(window, sector);
}

// Zero when each of `COUNT` FAT entries in a row holds the number behind that of the entry before
// it, the first one `value`. Without a branch inside, compilers turn this into wide operations.
template <u32 ENTRY_SIZE, u32 COUNT>
u32 difference(const u8 *row, u32 value) {
    u32 result = 0;
    for (u32 i = 0; i < COUNT; i++) {
        // cppcheck-suppress redundantInitialization; it takes each round's variable for the same
        const u8 *at = row + std::size_t{i} * ENTRY_SIZE;
        const u32 found =
            ENTRY_SIZE == FAT16_ENTRY_SIZE ? load16(at) : load32(at) & FAT32_VALUE_MASK;
        result |= found ^ (value + i);
    }
    return result;
}

// How many of the FAT entries from `entry` on, `limit` at most, hold `value`, the number behind it,
// and so on.
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

// What keeps an entry from being read or followed. Telling so is a step of its own: gathered
// changes may have to reach the medium before.
enum class link_fault { NONE, NO_VOLUME, FAT_TYPE, MEMORY, READ, NUMBER, VALUE };

link_fault load_value(sector_window *window, u32 cluster, u32 *value) {
    if (sv == nullptr || sv->sector_size == 0 || value == nullptr) {
        return link_fault::NO_VOLUME;
    }
    if (!is_fat_type_known()) {
        return link_fault::FAT_TYPE;
    }
    const entry_place place = place_of(cluster);
    const int filled = fill_window(window, place.sector);
    if (filled < 0) {
        return filled == -ENOMEM ? link_fault::MEMORY : link_fault::READ;
    }
    *value = load_entry(window->find(place.sector) + place.offset);
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
    // A bad-cluster mark is no link even where a hostile geometry counts that far.
    return is_data_cluster(*value) && *value != bad_mark() ? link_fault::NONE : link_fault::VALUE;
}

// Tells the fault in the name of the operation that has it. Returns its errno.
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

// Takes over a sector that was seen and is about to be changed. Returns 0, -ENOMEM, or -EIO where
// it was not seen and cannot be read.
int take_sector(fat_editor *editor, u64 sector) {
    const u8 *seen = editor->seen.find(sector);
    if (seen == nullptr) {
        return load_sector(&editor->changed, sector);
    }
    if (!reserve_sector(&editor->changed)) {
        return -ENOMEM;
    }
    std::memcpy(editor->changed.buffer.get(), seen, sv->sector_size);
    editor->changed.first = sector;
    editor->changed.count = 1;
    return 0;
}

// Makes the editor stand in `sector`, after writing what it changed in another one.
int move_editor(fat_editor *editor, u64 sector) {
    if (editor->changed.find(sector) != nullptr) {
        return 0;
    }
    const int flushed = flush_editor(editor);
    if (flushed < 0) {
        return flushed;
    }
    const int taken = take_sector(editor, sector);
    if (taken == -ENOMEM) {
        report_at("fat_write_entry", __LINE__, "cannot allocate buffer\n\n");
    } else if (taken < 0) {
        report_at("fat_write_entry", __LINE__, "cannot read FAT\n");
    }
    return taken;
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

int edit_entry(fat_editor *editor, u32 cluster, u32 value) {
    if (sv == nullptr || sv->sector_size == 0) {
        report_at("fat_write_entry", __LINE__, "Invalid: sector size is not set\n\n");
        return -EINVAL;
    }
    if (!is_fat_type_known()) {
        report_at("fat_write_entry", __LINE__, "Invalid FAT type\n");
        return -EINVAL;
    }
    const entry_place place = place_of(cluster);
    const int moved = move_editor(editor, place.sector);
    if (moved < 0) {
        return moved;
    }
    // Index 0 of the table that begins at the entry: the entry itself.
    (void)set_fat_entry(sv->fat_type, editor->changed.buffer.get() + place.offset, 0, value);
    if (!editor->dirty && !editor->write_failed) {
        editor->dirty_since = editor->step;
    }
    editor->dirty = true;
    return editor->gathers ? 0 : flush_editor(editor);
}

int flush_editor(fat_editor *editor) {
    if (!editor->dirty) {
        return 0;
    }
    editor->dirty = false;
    const u64 sector = editor->changed.first;
    if (write_sectors(editor->changed.buffer.get(), sector, 1) != 1) {
        // What stands on the medium now is not known.
        editor->write_failed = true;
        editor->changed.count = 0;
        forget_sector(&editor->seen, sector);
        report_at("fat_write_entry", __LINE__, "cannot write FAT\n\n");
        return -EIO;
    }
    refresh_sector(&editor->seen, sector, editor->changed.buffer.get());
    return 0;
}

int fat_write_entry(u32 cluster, u32 value) {
    fat_editor editor;
    return edit_entry(&editor, cluster, value);
}

// ---- links ------------------------------------------------------------------------------------

int follow_link(sector_window *fat, u32 cluster) {
    u32 value = FAT_FREE;
    const link_fault fault = load_link(fat, cluster, &value);
    return fault == link_fault::NONE ? static_cast<int>(value) : report_fault(fault, cluster);
}

int follow_link(fat_editor *editor, u32 cluster) {
    const bool is_changed =
        editor->changed.count != 0 && editor->changed.find(place_of(cluster).sector) != nullptr;
    u32 value = FAT_FREE;
    const link_fault fault =
        load_link(is_changed ? &editor->changed : &editor->seen, cluster, &value);
    if (fault == link_fault::NONE) {
        return static_cast<int>(value);
    }
    const int flushed = flush_editor(editor);
    return flushed < 0 ? flushed : report_fault(fault, cluster);
}

u32 count_straight_links(const sector_window &fat, u32 cluster, u32 most) {
    if (!is_data_cluster(cluster)) {
        return 0;
    }
    const entry_place place = place_of(cluster);
    const u8 *entry = fat.find(place.sector);
    if (entry == nullptr) {
        return 0;
    }
    entry += place.offset;
    const u64 window_bytes = (fat.first + fat.count - place.sector) * sv->sector_size;
    const u32 in_window = static_cast<u32>(window_bytes - place.offset) / entry_size();
    const u32 highest = std::min(sv->num_clusters + 1, bad_mark() - 1);
    const u32 limit = std::min({most, in_window, highest - std::min(cluster, highest)});
    return sv->fat_type == 16 ? count_ascending<FAT16_ENTRY_SIZE>(entry, cluster + 1, limit)
                              : count_ascending<FAT32_ENTRY_SIZE>(entry, cluster + 1, limit);
}

int fat_read_clus(u32 cluster) {
    sector_window window;
    return follow_link(&window, cluster);
}

int find_free(fat_editor *editor, u32 first, u32 last) {
    for (u64 cluster = first; cluster <= last; cluster++) {
        const int value = follow_link(editor, static_cast<u32>(cluster));
        if (value < 0) {
            if (!editor->write_failed) {
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
    fat_editor editor;
    return find_free(&editor, first, last);
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

bool circle_guard::closes_at(u32 cluster) {
    return closes_within(cluster, 1);
}

bool circle_guard::closes_within(u32 first, u32 count) {
    while (count > 0) {
        const u32 to_next_anchor = span - steps + 1;
        const u32 stretch = std::min(count, to_next_anchor);
        if (has_anchor && anchor >= first && anchor - first < stretch) {
            return true;
        }
        first += stretch;
        count -= stretch;
        steps += stretch;
        if (stretch == to_next_anchor) {
            anchor = first - 1;
            has_anchor = true;
            span *= 2;
            steps = 1;
        }
    }
    return false;
}

} // namespace fat
