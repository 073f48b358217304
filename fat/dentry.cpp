// Directory entries: their locations, reading them in order, their time stamps.
//
#include "fat/internal.h"

#include <cerrno>

namespace fat {

namespace {

int report_link_value(int value) {
    report_at("get_phy_sector", __LINE__, "invalid value %d\n", value);
    return -EINVAL;
}

int report_no_place(u32 base_clu, u32 index, int error) {
    report_at("get_dentry_with_clu", __LINE__, "Failed to get entry sector!:(%u, %d)\n\n", base_clu,
              static_cast<int>(index));
    return error;
}

int report_read(u32 sector) {
    report_at("get_dentry_with_clu", __LINE__, "cannot read sectors:(sector: %u)\n", sector);
    return -EIO;
}

int report_size_end() {
    report_at("fat_get_dentry", __LINE__, "access the out of range in directory space\n");
    return -EFAULT;
}

// Finds entry `index` for a walk that continues from `cursor`.
int locate_dentry(core::table *fat, core::chain_cursor *cursor, u32 base_clu, u32 index,
                  dentry_location *location) {
    const core::volume &vol = fat->on();
    *location = {0, core::offset_of_slot(vol, index)};
    const int located = locate_sector(fat, cursor, base_clu, core::sector_index_of_slot(vol, index),
                                      &location->sector);
    return located < 0 ? report_no_place(base_clu, index, located) : 0;
}

} // namespace

// ---- addressing -------------------------------------------------------------------------------

bool is_root(const oentry *entry) {
    return entry->dentry == nullptr && entry->dentry_sector == 0;
}

bool is_fat16_root(const oentry *entry) {
    return is_root(entry) && sv->fat_type != 32;
}

bool lies_in_one_sector(const oentry &entry) {
    return entry.dentry_offset + DENTRY_SIZE <= sv->sector_size;
}

bool is_open_directory(const oentry *entry) {
    return is_root(entry) || is_live_directory(entry->dentry);
}

bool is_available(const u8 *entry) {
    const u32 type = entry_type(entry);
    return type == DENTRY_UNUSED || type == DENTRY_DELETED;
}

u32 base_cluster(const oentry *dir) {
    return is_fat16_root(dir) ? 0 : dir->start;
}

u32 dir_entry_count(const oentry *dir) {
    return is_fat16_root(dir) ? FAT16_ROOT_ENTRIES : dir->allocated / DENTRY_SIZE;
}

int report_place(core::fault why, u32 base_clu, const core::chain_cursor &cursor) {
    switch (why) {
    case core::fault::START_OUTSIDE:
        report_at("get_phy_sector", __LINE__, "NULL pointer or invalid xxx!\n\n");
        return -EINVAL;
    case core::fault::START_RESERVED:
        report_at("get_phy_sector", __LINE__, "invalid start cluster number %d\n",
                  static_cast<int>(base_clu));
        return -EINVAL;
    case core::fault::ROOT_AREA_END:
        report_at("get_phy_sector", __LINE__, "Invalid sector number in Root dir\n\n");
        return -EFAULT;
    case core::fault::CHAIN_END:
        return -EFAULT;
    case core::fault::FREE_CLUSTER:
        return report_link_value(FAT_FREE);
    case core::fault::CYCLE:
        return report_link_value(static_cast<int>(cursor.cluster));
    default:
        return report_link_value(report_link(why, cursor.cluster));
    }
}

int locate_sector(core::table *fat, core::chain_cursor *cursor, u32 base_clu, u32 sector_index,
                  u32 *sector) {
    continue_walk(cursor, base_clu, sector_index);
    const core::result<u32> found = core::sector_in_space(*fat, cursor, base_clu, sector_index);
    if (!found.ok()) {
        return report_place(found.why, base_clu, *cursor);
    }
    *sector = found.value;
    return 0;
}

int get_phy_sector(u32 base_clu, u32 sector_index, u32 *sector) {
    core::table fat(here());
    core::chain_cursor cursor;
    if (sector == nullptr) {
        return report_place(core::fault::START_OUTSIDE, base_clu, cursor);
    }
    return locate_sector(&fat, &cursor, base_clu, sector_index, sector);
}

int get_phy_sector_by_offset(u32 base_clu, u32 byte_offset, u32 *sector) {
    return get_phy_sector(base_clu, byte_offset / sv->sector_size, sector);
}

int get_entry_sector(u32 base_clu, u32 index, u32 *sector) {
    return get_phy_sector(base_clu, core::sector_index_of_slot(here(), index), sector);
}

// ---- reading entries --------------------------------------------------------------------------

int get_dentry_with_clu(u32 base_clu, u32 index, u8 **entry, u8 *sector_buf,
                        dentry_location *location) {
    if (sector_buf == nullptr || entry == nullptr) {
        REPORT("%s is NULL\n", sector_buf == nullptr ? "sector_buf" : "entry");
        return -EINVAL;
    }
    core::table fat(here());
    core::chain_cursor cursor;
    return get_dentry_from(&fat, &cursor, base_clu, index, entry, sector_buf, location);
}

int get_dentry_from(core::table *fat, core::chain_cursor *cursor, u32 base_clu, u32 index,
                    u8 **entry, u8 *sector_buf, dentry_location *location) {
    dentry_location found = {};
    const int located = locate_dentry(fat, cursor, base_clu, index, &found);
    if (located < 0) {
        return located;
    }
    if (fat->on().read(found.sector, sector_buf, 1) < 0) {
        return report_read(found.sector);
    }
    *entry = sector_buf + found.offset;
    if (location != nullptr) {
        *location = found;
    }
    return 0;
}

int fat_get_dentry(oentry *dir, u32 index, u8 **entry, u8 *sector_buf, dentry_location *location) {
    if (index >= dir->allocated / DENTRY_SIZE) {
        return report_size_end();
    }
    return get_dentry_with_clu(base_cluster(dir), index, entry, sector_buf, location);
}

// Intentional: a transfer of 0 sectors is not an error. An open directory then has unused entries
// there, while a lookup sees the previous content of the buffer again.
dentry_walk::dentry_walk(const oentry *dir)
    : base_clu(base_cluster(dir)), fat(here()),
      slots(fat, base_clu, dir->allocated / DENTRY_SIZE, core::slot_walk::empty_read::ZEROS) {}

dentry_walk::dentry_walk(u32 base) : base_clu(base), fat(here()), slots(fat, base) {}

int report_walk(const dentry_walk &walk, core::fault why, u32 index) {
    switch (why) {
    case core::fault::NO_MEMORY:
        return -ENOMEM;
    case core::fault::SIZE_END:
        return report_size_end();
    case core::fault::READ:
        return report_read(walk.slots.place().sector);
    default:
        return report_no_place(walk.base_clu, index,
                               report_place(why, walk.base_clu, walk.slots.cursor()));
    }
}

int walk_to(dentry_walk *walk, u32 index, u8 **entry) {
    const core::result<u8 *> found = walk->slots.to(index);
    if (!found.ok()) {
        return report_walk(*walk, found.why, index);
    }
    *entry = found.value;
    return 0;
}

int get_lfn_chars(const u8 *slot, u16 *units) {
    core::load_units(slot, units);
    return 0;
}

// ---- time stamps ------------------------------------------------------------------------------

void dos_time_date(const tm *t, u16 *date, u16 *time) {
    const core::dos_moment moment = core::dos_moment_of(*t);
    *date = moment.date;
    *time = moment.time;
}

void set_entry_time(u8 *entry) {
    const time_t now = fat_clock(nullptr);
    const tm *local = localtime(&now);
    u16 date = 0;
    u16 time = 0;
    if (local != nullptr) { // a time without a calendar date is stored as 0
        dos_time_date(local, &date, &time);
    }
    store(entry, SHORT_MTIME, time);
    store(entry, SHORT_MDATE, date);
}

} // namespace fat
