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

int read_entry(fat_window *window, u32 cluster, u32 *value) {
    if (sv == nullptr || sv->sector_size == 0 || value == nullptr) {
        report_at("fat_read_entry", __LINE__, "Invalid input: sector_size(%d) n_clu(%d)\n",
                  sv == nullptr ? 0 : static_cast<int>(sv->sector_size), static_cast<int>(cluster));
        return -EINVAL;
    }
    if (!is_fat_type_known()) {
        report_at("fat_read_entry", __LINE__, "Invalid FAT type\n\n");
        return -EINVAL;
    }
    const entry_place place = place_of(cluster);
    const int filled = fill_window(window, place.sector);
    if (filled == -ENOMEM) {
        report_at("fat_read_entry", __LINE__, "cannot allocate FAT\n\n");
        return filled;
    }
    if (filled < 0) {
        report_at("fat_read_entry", __LINE__, "cannot read FAT\n\n");
        return filled;
    }
    *value = load_entry(window->buffer.get() + place.offset);
    return 0;
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
    return read_entry(&window, cluster, value);
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
    if (!is_data_cluster(cluster)) {
        report_at("fat_read_clus", __LINE__, "Invalid arg!\n\n");
        return -EINVAL;
    }
    u32 value = FAT_FREE;
    const int result = read_entry(window, cluster, &value);
    if (result < 0) {
        return result;
    }
    if (value == FAT_FREE || is_end_of_chain(value)) {
        return static_cast<int>(value);
    }
    // A bad-cluster mark is no link even where a hostile geometry counts that far.
    const u32 bad_mark = sv->fat_type == 32 ? FAT32_BAD : FAT16_BAD;
    if (!is_data_cluster(value) || value == bad_mark) {
        report_at("fat_read_clus", __LINE__, "Invalid cluster!\n\n");
        return -EINVAL;
    }
    return static_cast<int>(value);
}

int follow_link(fat_editor *editor, u32 cluster) {
    const bool is_changed = editor->changed.sector != fat_window::NO_SECTOR &&
                            editor->changed.sector == place_of(cluster).sector;
    return follow_link(is_changed ? &editor->changed : &editor->seen, cluster);
}

int fat_read_clus(u32 cluster) {
    fat_window window;
    return follow_link(&window, cluster);
}

int find_free(fat_editor *editor, u32 first, u32 last) {
    for (u64 cluster = first; cluster <= last; cluster++) {
        const int value = follow_link(editor, static_cast<u32>(cluster));
        if (value < 0) {
            report_at("fat_free_clus", __LINE__, "Invalid cluster value!\n\n");
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
    if (cluster == anchor) {
        return true;
    }
    if (steps == span) {
        anchor = cluster;
        span *= 2;
        steps = 0;
    }
    steps++;
    return false;
}

} // namespace fat
