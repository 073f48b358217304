// Building entries: finding free slots, filling short entries and long-name slots, writing them.
//
// A span of slots is written sector by sector, the sector of the short entry first; other entries
// in those sectors do not change.

#include "fat/internal.h"

#include <cerrno>
#include <cstring>

using namespace fat;

fat_permissions fat_perm = {};

namespace fat {

namespace {

// ---- free slots ----

// Searches the directory from slot `position` on. Returns 1 for a complete span, 0 at the end, or a
// negative errno; leaves `position` at the slot where the search ended.
int search_slots(dentry_walk *walk, u32 slot_count, core::free_span *span, u32 *position) {
    for (; *position < slot_count; (*position)++) {
        u8 *entry = nullptr;
        const int result = walk_to(walk, *position, &entry);
        if (result == -EFAULT) {
            return 0;
        }
        if (result < 0) {
            report_at("fat_find_empty_entries", __LINE__, "Check Here!\n\n");
            return result;
        }
        if (span->add(is_available(entry))) {
            return 1;
        }
    }
    return 0;
}

// Appends clusters until the span is complete. All slots of a new cluster are free.
int grow_for_span(oentry *dir, core::free_span *span, u32 *position) {
    for (;;) {
        const int grown = fat_extend_dir(dir, nullptr);
        if (grown < 0) {
            report_at("fat_find_empty_entries", __LINE__, "Check Here!\n\n");
            return grown;
        }
        for (const u32 slot_count = dir_entry_count(dir); *position < slot_count; (*position)++) {
            if (span->add(true)) {
                return 0;
            }
        }
    }
}

// ---- short entries ----

// The permission mode stores group bits, inverted, in the cmsec byte, missing owner rights in
// attribute bits, and an identifier in place of the creation time.
void add_permissions(u8 *entry, bool is_parent) {
    const u32 mode = is_parent ? fat_perm.perm_mode_parent : fat_perm.perm_mode;
    const u32 id = is_parent ? fat_perm.perm_id_parent : fat_perm.perm_id;
    constexpr u32 OWNER_READ = 0x100;
    constexpr u32 OWNER_WRITE = 0x80;
    constexpr u32 OWNER_EXECUTE = 0x40;
    constexpr u32 GROUP_SHIFT = 3;
    const u32 group = mode >> GROUP_SHIFT & 7;
    u32 attr = load(entry, SHORT_ATTR);
    attr |= (mode & OWNER_READ) == 0 ? ATTR_HIDDEN : 0;
    attr |= (mode & OWNER_WRITE) == 0 ? ATTR_READ_ONLY : 0;
    attr |= (mode & OWNER_EXECUTE) == 0 ? ATTR_ARCHIVE : 0;
    store(entry, SHORT_ATTR, attr);
    store(entry, SHORT_CMSEC, load(entry, SHORT_CMSEC) | (~group & 7) << 2);
    store(entry, SHORT_CTIME, id);
}

// ---- spans of slots ----

// Fills the long-name slots before the short entry, beginning with the one next to it.
int fill_long_slots(span_sectors *span, oentry *dir, u32 short_index, u8 *short_entry, u32 count,
                    const fat_name *name) {
    const u8 checksum = dosname_checksum(name->dosName);
    u8 *slot = short_entry;
    for (u32 ordinal = 1; ordinal < count; ordinal++) {
        const u32 index = short_index - ordinal;
        if (same_sector(index, index + 1)) {
            slot -= DENTRY_SIZE;
        } else {
            int result = span->reserve();
            if (result == 0) {
                result = span->load(dir, index, &slot);
            }
            if (result < 0) {
                return result;
            }
        }
        core::store_slot_of_name(slot, ordinal, count - 1, name->unicode, checksum,
                                 core::name_end::TERMINATOR_OR_PADDING);
    }
    return 0;
}

// The tails come from the survey or, without one, from a walk over the directory.
int make_short_name_unique(oentry *dir, const fat_name *name, const creation_survey *survey) {
    if (sv->long_name != 1 || name->unicode == nullptr) {
        return 0;
    }
    const int result = survey != nullptr ? append_lowest_tail(name->dosName, survey->slots.tails)
                                         : add_numeric_tail(dir, name->dosName);
    if (result == -EEXIST) {
        report_at("build_entry", __LINE__, "cannot create DOS name: over the maximum numeric\n");
    }
    return result;
}

// Fills all slots of the span in memory.
int fill_span(span_sectors *span, oentry *dir, u32 short_index, u32 count, u32 kind,
              const fat_name *name, u32 start_clu) {
    u8 *entry = nullptr;
    int result = span->load(dir, short_index, &entry);
    if (result == 0) {
        result = set_entry_value(entry, name->dosName, kind, start_clu, name->lcase);
    }
    if (result == 0 && sv->long_name == 1 && name->unicode != nullptr && count > 1) {
        result = fill_long_slots(span, dir, short_index, entry, count, name);
    }
    return result;
}

int write_dot_entries(u32 parent_clu, u32 new_clu) {
    const heap_ptr<u8> sector_buf = zeroed_bytes(sv->sector_size);
    if (sector_buf == nullptr) {
        return -ENOMEM;
    }
    u32 sector = 0;
    int result = get_entry_sector(new_clu, 0, &sector);
    if (result == 0 && read_medium(sector_buf.get(), sector, 1) != 1) {
        result = -EIO;
    }
    u8 *dot = sector_buf.get();
    if (result == 0) {
        result = set_entry_value(dot, DOT_NAME, DENTRY_DIR, new_clu, 0);
    }
    if (result == 0) {
        result = set_entry_value(dot + DENTRY_SIZE, DOT_DOT_NAME, DENTRY_DIR, parent_clu, 0);
    }
    if (result < 0) {
        return result;
    }
    const int written = write_medium(sector_buf.get(), sector, 1);
    if (written != 1) {
        return written < 0 ? written : -EIO;
    }
    return 0;
}

} // namespace

// ---- free slots -------------------------------------------------------------------------------

namespace {

// Continues the search for a span at slot `position`.
int continue_search(oentry *dir, core::free_span span, u32 position, u32 count, u32 *index) {
    dentry_walk walk(dir);
    if (!walk.slots.reserve()) {
        report_at("fat_find_empty_entries", __LINE__, "Check Here!\n\n");
        return -ENOMEM;
    }
    continue_walk(&walk.slots, walk.base_clu, position);
    int result = search_slots(&walk, dir_entry_count(dir), &span, &position);
    if (result < 0) {
        return result;
    }
    if (result == 0) {
        if (is_fat16_root(dir)) {
            report_bare("Root directory has no more space\n");
            return -ENOSPC;
        }
        result = grow_for_span(dir, &span, &position);
        if (result < 0) {
            return result;
        }
    }
    *index = position + 1 - count;
    return 0;
}

} // namespace

int fat_find_empty_entries(oentry *dir, u32 count, u32 *index) {
    if (dir == nullptr || index == nullptr) {
        REPORT("Check Here!\n\n");
        return -EINVAL;
    }
    return continue_search(dir, core::free_span(count), 0, count, index);
}

int find_empty_entries_after(oentry *dir, u32 count, const creation_survey &survey, u32 *index) {
    if (!survey.is_usable) {
        return fat_find_empty_entries(dir, count, index);
    }
    if (survey.slots.span_end != 0) {
        *index = survey.slots.span_end - count;
        return 0;
    }
    return continue_search(dir, survey.slots.span, survey.slots.visited, count, index);
}

// ---- the sectors of a span --------------------------------------------------------------------

bool same_sector(u32 index_a, u32 index_b) {
    const u32 entries_per_sector = sv->sector_size / DENTRY_SIZE;
    return index_a / entries_per_sector == index_b / entries_per_sector;
}

int span_sectors::reserve() {
    if (used == MAX) {
        return -EINVAL;
    }
    buffers[used] = zeroed_bytes(sv->sector_size);
    return buffers[used] != nullptr ? 0 : -ENOMEM;
}

int span_sectors::load(oentry *dir, u32 index, u8 **entry) {
    dentry_location location = {};
    const int result = fat_get_dentry(dir, index, entry, buffers[used].get(), &location);
    if (result < 0) {
        return result;
    }
    sectors[used++] = location.sector;
    return 0;
}

int span_sectors::write_back() {
    for (u32 i = 0; i < used; i++) {
        const int written = write_medium(buffers[i].get(), sectors[i], 1);
        if (written != 1) {
            return written < 0 ? written : -EIO;
        }
    }
    return 0;
}

// ---- filling ----------------------------------------------------------------------------------

int set_entry_value(u8 *entry, const u8 *dos, u32 kind, u32 start_clu, u8 lcase) {
    u32 attr = 0;
    store(entry, SHORT_CMSEC, 0); // Intentional: also for a kind that is refused
    switch (kind) {
    case DENTRY_FILE:
    case KIND_SYMLINK:
        break;
    case DENTRY_DIR:
        attr = ATTR_DIRECTORY;
        break;
    case DENTRY_VOLUME:
        attr = ATTR_VOLUME;
        break;
    default:
        REPORT("Check Here!\n\n");
        return -EINVAL;
    }
    // Intentional: creation and access have no date, only the modification.
    core::store_short_entry(entry, {.name = dos,
                                    .attributes = attr,
                                    .case_bits = lcase,
                                    .start = start_clu,
                                    .is_link = kind == KIND_SYMLINK});
    set_entry_time(entry);
    if (fat_perm.perm_enable == 1) {
        add_permissions(entry, std::memcmp(dos, DOT_DOT_NAME, sizeof DOT_DOT_NAME) == 0);
    }
    return 0;
}

int set_volume_entry(u8 *entry, const u8 *label) {
    return set_entry_value(entry, label, DENTRY_VOLUME, 0, 0);
}

int set_long_slot(u8 *slot, u8 ordinal, const u16 *units, u8 checksum) {
    core::store_long_slot(slot, ordinal, units, checksum, core::name_end::TERMINATOR_OR_PADDING);
    return 0;
}

// ---- writing ----------------------------------------------------------------------------------

namespace {

int build_with(oentry *dir, u32 first, u32 count, u32 kind, fat_name *name, u32 start_clu,
               const creation_survey *survey) {
    span_sectors span;
    int result = span.reserve();
    if (result < 0) {
        report_at("build_entry", __LINE__, "Check here!\n\n");
        return result;
    }
    result = make_short_name_unique(dir, name, survey);
    if (result < 0) {
        return result;
    }
    const u32 short_index = first + count - 1;
    result = fill_span(&span, dir, short_index, count, kind, name, start_clu);
    if (result == 0) {
        result = span.write_back();
    }
    if (result < 0) {
        report_at("build_entry", __LINE__, "Check here!\n\n");
        return result;
    }
    return static_cast<int>(short_index);
}

} // namespace

int build_entry(oentry *dir, u32 first, u32 count, u32 kind, fat_name *name, u32 start_clu) {
    if (dir == nullptr || name == nullptr) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    return build_with(dir, first, count, kind, name, start_clu, nullptr);
}

int build_entry_after(oentry *dir, u32 first, u32 count, u32 kind, fat_name *name, u32 start_clu,
                      const creation_survey &survey) {
    return build_with(dir, first, count, kind, name, start_clu,
                      survey.is_usable ? &survey : nullptr);
}

int init_directory(u32 parent_clu, u32 new_clu) {
    const int result = write_dot_entries(parent_clu, new_clu);
    if (result < 0) {
        REPORT("Check here!\n\n");
    }
    return result;
}

} // namespace fat
