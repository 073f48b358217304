// Single entries of the first FAT of the open volume, and links followed through them.
//
// Only the first FAT is read and written; the other copies keep the state that formatting gave
// them. Nothing is remembered from one public call to the next. Inside a call a fat_window keeps
// the FAT sector last read, so that a walk reads each sector once while it stays in it.

#include "fat/internal.h"

#include <cerrno>
#include <utility>

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

// Makes the window hold `sector`. Returns 0, -ENOMEM or -EIO; telling so is the caller's part.
int fill_window(fat_window *window, u64 sector) {
    if (window->buffer == nullptr) {
        window->buffer = zeroed_bytes(sv->sector_size);
        if (window->buffer == nullptr) {
            return -ENOMEM;
        }
    } else if (window->sector == sector) {
        return 0;
    }
    window->sector = fat_window::NO_SECTOR;
    if (read_sectors(window->buffer.get(), sector, 1) != 1) {
        return -EIO;
    }
    window->sector = sector;
    return 0;
}

// What keeps an entry from being read or followed. Telling so is a step of its own: gathered
// changes may have to reach the medium before.
enum class link_fault { NONE, NO_VOLUME, FAT_TYPE, MEMORY, READ, NUMBER, VALUE };

link_fault load_value(fat_window *window, u32 cluster, u32 *value) {
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
    *value = load_entry(window->buffer.get() + place.offset);
    return link_fault::NONE;
}

link_fault load_link(fat_window *window, u32 cluster, u32 *value) {
    if (!is_data_cluster(cluster)) {
        return link_fault::NUMBER;
    }
    const link_fault fault = load_value(window, cluster, value);
    if (fault != link_fault::NONE || *value == FAT_FREE || is_end_of_chain(*value)) {
        return fault;
    }
    // A bad-cluster mark is no link even where a hostile geometry counts that far.
    const u32 bad_mark = sv->fat_type == 32 ? FAT32_BAD : FAT16_BAD;
    return is_data_cluster(*value) && *value != bad_mark ? link_fault::NONE : link_fault::VALUE;
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

// Makes the editor stand in `sector`, after writing what it changed in another one.
int move_editor(fat_editor *editor, u64 sector) {
    if (editor->changed.sector == sector) {
        return 0;
    }
    const int flushed = flush_editor(editor);
    if (flushed < 0) {
        return flushed;
    }
    if (editor->seen.sector == sector) {
        std::swap(editor->seen, editor->changed); // what was seen is about to be changed
        editor->seen.sector = fat_window::NO_SECTOR;
        return 0;
    }
    const int filled = fill_window(&editor->changed, sector);
    if (filled == -ENOMEM) {
        report_at("fat_write_entry", __LINE__, "cannot allocate buffer\n\n");
    } else if (filled < 0) {
        report_at("fat_write_entry", __LINE__, "cannot read FAT\n");
    }
    return filled;
}

} // namespace

bool is_data_cluster(u32 cluster) {
    return cluster >= FIRST_DATA_CLUSTER && cluster - FIRST_DATA_CLUSTER < sv->num_clusters;
}

bool is_end_of_chain(u32 value) {
    return value >= (sv->fat_type == 32 ? FAT32_END : FAT16_END);
}

// ---- entries ----------------------------------------------------------------------------------

int fat_read_entry(u32 cluster, u32 *value) {
    fat_window window;
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
    if (write_sectors(editor->changed.buffer.get(), editor->changed.sector, 1) != 1) {
        // What stands on the medium now is not known.
        editor->write_failed = true;
        editor->changed.sector = fat_window::NO_SECTOR;
        report_at("fat_write_entry", __LINE__, "cannot write FAT\n\n");
        return -EIO;
    }
    return 0;
}

int fat_write_entry(u32 cluster, u32 value) {
    fat_editor editor;
    return edit_entry(&editor, cluster, value);
}

// ---- links ------------------------------------------------------------------------------------

int follow_link(fat_window *window, u32 cluster) {
    u32 value = FAT_FREE;
    const link_fault fault = load_link(window, cluster, &value);
    return fault == link_fault::NONE ? static_cast<int>(value) : report_fault(fault, cluster);
}

int follow_link(fat_editor *editor, u32 cluster) {
    const bool is_changed = editor->changed.sector != fat_window::NO_SECTOR &&
                            editor->changed.sector == place_of(cluster).sector;
    u32 value = FAT_FREE;
    const link_fault fault =
        load_link(is_changed ? &editor->changed : &editor->seen, cluster, &value);
    if (fault == link_fault::NONE) {
        return static_cast<int>(value);
    }
    const int flushed = flush_editor(editor);
    return flushed < 0 ? flushed : report_fault(fault, cluster);
}

int fat_read_clus(u32 cluster) {
    fat_window window;
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
    if (has_anchor && cluster == anchor) {
        return true;
    }
    if (steps == span) {
        anchor = cluster;
        has_anchor = true;
        span *= 2;
        steps = 0;
    }
    steps++;
    return false;
}

} // namespace fat
