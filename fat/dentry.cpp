// Directory entries: their locations, reading them in order, their time stamps.
//
// Entry i of a directory is at byte i x 32 of its space: the root area of FAT16, or a cluster
// chain. A walk reads each sector of the directory once, contiguous sectors together, and follows
// the chain once.

#include "fat/internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace fat {

namespace {

constexpr u32 DIRECTORY_WINDOW_BYTES = 32 * 1024; // the size of a large cluster

int report_link(int value) {
    report_at("get_phy_sector", __LINE__, "invalid value %d\n", value);
    return -EINVAL;
}

// Moves the cursor to the cluster `links` links after `first`. A cycle counts as a broken link.
int move_cursor(chain_cursor *cursor, u32 first, u32 links) {
    if (cursor->first != first || links < cursor->links) {
        cursor->first = cursor->cluster = first;
        cursor->links = 0;
        cursor->detector = cycle_detector{};
        (void)cursor->detector.closes_cycle(first); // one cluster alone is not a cycle
    }
    while (cursor->links < links) {
        const int next = follow_link(&cursor->fat, cursor->cluster);
        if (next < 0 || cursor->detector.closes_cycle(static_cast<u32>(next))) {
            return report_link(next);
        }
        cursor->cluster = static_cast<u32>(next);
        cursor->links++;
        // Contiguous clusters are skipped in one step.
        const u32 contiguous =
            count_contiguous_links(cursor->fat, cursor->cluster, links - cursor->links);
        if (cursor->detector.closes_cycle_within(cursor->cluster + 1, contiguous)) {
            return report_link(static_cast<int>(cursor->detector.anchor));
        }
        cursor->cluster += contiguous;
        cursor->links += contiguous;
    }
    return 0;
}

int root_area_sector(u32 sector_index, u32 *sector) {
    const u64 wanted = static_cast<u64>(sv->rdir_start) + sector_index;
    if (wanted >= sv->data_start) {
        report_at("get_phy_sector", __LINE__, "Invalid sector number in Root dir\n\n");
        return -EFAULT;
    }
    *sector = static_cast<u32>(wanted);
    return 0;
}

int chain_sector(chain_cursor *cursor, u32 base_clu, u32 sector_index, u32 *sector) {
    const int moved = move_cursor(cursor, base_clu, sector_index / sv->sec_per_clus);
    if (moved < 0) {
        return moved;
    }
    if (cursor->cluster == FAT_FREE) {
        return report_link(FAT_FREE);
    }
    if (is_end_of_chain(cursor->cluster)) {
        return -EFAULT;
    }
    *sector = sv->data_start + (cursor->cluster - FIRST_DATA_CLUSTER) * sv->sec_per_clus +
              sector_index % sv->sec_per_clus;
    return 0;
}

// Index of the directory sector that contains entry `index`.
u32 sector_index_of(u32 index) {
    return static_cast<u32>(static_cast<u64>(index) * DENTRY_SIZE / sv->sector_size);
}

// Byte offset of entry `index` in its sector.
u32 offset_of(u32 index) {
    return static_cast<u32>(static_cast<u64>(index) * DENTRY_SIZE % sv->sector_size);
}

// Number of contiguous directory sectors from `sector` on, in the root area or in an extent of
// clusters, limited to the size of a window and to the links that are already in memory.
u32 contiguous_sectors(const chain_cursor &cursor, u32 base_clu, u32 sector) {
    const u32 limit = DIRECTORY_WINDOW_BYTES / sv->sector_size;
    if (base_clu == 0) {
        return std::min(sv->data_start - sector, limit);
    }
    const u32 in_cluster = sv->sec_per_clus - (sector - sv->data_start) % sv->sec_per_clus;
    const u32 clusters =
        count_contiguous_links(cursor.fat, cursor.cluster, limit / sv->sec_per_clus);
    return std::min(in_cluster + clusters * sv->sec_per_clus, limit);
}

// Finds the sector of entry `index` for a walk that continues from `cursor`.
int locate_dentry(chain_cursor *cursor, u32 base_clu, u32 index, dentry_location *location) {
    *location = {0, offset_of(index)};
    const int located = locate_sector(cursor, base_clu, sector_index_of(index), &location->sector);
    if (located < 0) {
        report_at("get_dentry_with_clu", __LINE__, "Failed to get entry sector!:(%u, %d)\n\n",
                  base_clu, static_cast<int>(index));
    }
    return located;
}

int read_dentry_sector(u32 sector, u8 *sector_buf) {
    if (read_sectors(sector_buf, sector, 1) < 0) {
        report_at("get_dentry_with_clu", __LINE__, "cannot read sectors:(sector: %u)\n", sector);
        return -EIO;
    }
    return 0;
}

// The same for a walk. Its first sector is read alone, since most walks end there; a walk that
// continues reads contiguous sectors together.
int read_walk_sector(dentry_walk *walk, bool continues) {
    const u32 sector = walk->location.sector;
    if (walk->ahead.find(sector) != nullptr ||
        (continues && read_ahead(&walk->ahead, sector,
                                 contiguous_sectors(walk->cursor, walk->base_clu, sector)))) {
        std::memcpy(walk->sector_buf.get(), walk->ahead.find(sector), sv->sector_size);
        return 0;
    }
    // Intentional: a transfer of 0 sectors is not an error. An open directory then has unused
    // entries there, while a lookup sees the previous content of the buffer again.
    if (walk->dir != nullptr) {
        std::memset(walk->sector_buf.get(), 0, sv->sector_size);
    }
    return read_dentry_sector(sector, walk->sector_buf.get());
}

bool is_past_allocation(const oentry *dir, u32 index) {
    if (index < dir->allocated / DENTRY_SIZE) {
        return false;
    }
    report_at("fat_get_dentry", __LINE__, "access the out of range in directory space\n");
    return true;
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

bool is_live_directory(const u8 *dentry) {
    return dentry != nullptr && dentry[SHORT_NAME.offset] != NAME_UNUSED &&
           dentry[SHORT_NAME.offset] != NAME_DELETED &&
           (load(dentry, SHORT_ATTR) & ATTR_KIND_MASK) == ATTR_DIRECTORY;
}

bool is_open_directory(const oentry *entry) {
    return is_root(entry) || is_live_directory(entry->dentry);
}

bool is_free_slot(const u8 *entry) {
    const u32 type = entry_type(entry);
    return type == DENTRY_UNUSED || type == DENTRY_DELETED;
}

u32 start_cluster(const u8 *dentry) {
    return load(dentry, SHORT_START_HIGH) << 16 | load(dentry, SHORT_START_LOW);
}

void set_start_cluster(u8 *dentry, u32 cluster) {
    store(dentry, SHORT_START_HIGH, cluster >> 16);
    store(dentry, SHORT_START_LOW, cluster & 0xFFFF);
}

u32 base_cluster(const oentry *dir) {
    return is_fat16_root(dir) ? 0 : dir->start;
}

u32 dir_entry_count(const oentry *dir) {
    return is_fat16_root(dir) ? FAT16_ROOT_ENTRIES : dir->allocated / DENTRY_SIZE;
}

int locate_sector(chain_cursor *cursor, u32 base_clu, u32 sector_index, u32 *sector) {
    if (sector == nullptr || (base_clu >= FIRST_DATA_CLUSTER && !is_data_cluster(base_clu))) {
        report_at("get_phy_sector", __LINE__, "NULL pointer or invalid xxx!\n\n");
        return -EINVAL;
    }
    if (base_clu == 0 && sv->fat_type != 32) {
        return root_area_sector(sector_index, sector);
    }
    if (base_clu < FIRST_DATA_CLUSTER) {
        report_at("get_phy_sector", __LINE__, "invalid start cluster number %d\n",
                  static_cast<int>(base_clu));
        return -EINVAL;
    }
    return chain_sector(cursor, base_clu, sector_index, sector);
}

int get_phy_sector(u32 base_clu, u32 sector_index, u32 *sector) {
    chain_cursor cursor;
    return locate_sector(&cursor, base_clu, sector_index, sector);
}

int get_phy_sector_by_offset(u32 base_clu, u32 byte_offset, u32 *sector) {
    return get_phy_sector(base_clu, byte_offset / sv->sector_size, sector);
}

int get_entry_sector(u32 base_clu, u32 index, u32 *sector) {
    return get_phy_sector(base_clu, sector_index_of(index), sector);
}

// ---- reading entries --------------------------------------------------------------------------

int get_dentry_with_clu(u32 base_clu, u32 index, u8 **entry, u8 *sector_buf,
                        dentry_location *location) {
    if (sector_buf == nullptr || entry == nullptr) {
        REPORT("%s is NULL\n", sector_buf == nullptr ? "sector_buf" : "entry");
        return -EINVAL;
    }
    chain_cursor cursor;
    return get_dentry_from(&cursor, base_clu, index, entry, sector_buf, location);
}

int get_dentry_from(chain_cursor *cursor, u32 base_clu, u32 index, u8 **entry, u8 *sector_buf,
                    dentry_location *location) {
    dentry_location found = {};
    int result = locate_dentry(cursor, base_clu, index, &found);
    if (result == 0) {
        result = read_dentry_sector(found.sector, sector_buf);
    }
    if (result < 0) {
        return result;
    }
    *entry = sector_buf + found.offset;
    if (location != nullptr) {
        *location = found;
    }
    return 0;
}

int fat_get_dentry(oentry *dir, u32 index, u8 **entry, u8 *sector_buf, dentry_location *location) {
    if (is_past_allocation(dir, index)) {
        return -EFAULT;
    }
    return get_dentry_with_clu(base_cluster(dir), index, entry, sector_buf, location);
}

bool begin_walk(dentry_walk *walk, u32 base_clu) {
    walk->base_clu = base_clu;
    walk->sector_buf = zeroed_bytes(sv->sector_size);
    return walk->sector_buf != nullptr;
}

bool begin_walk(dentry_walk *walk, const oentry *dir) {
    walk->dir = dir;
    return begin_walk(walk, base_cluster(dir));
}

int walk_to(dentry_walk *walk, u32 index, u8 **entry) {
    if (index - walk->first_index >= walk->loaded_entries) {
        const bool continues = index - walk->first_index == walk->loaded_entries && index > 0;
        walk->loaded_entries = 0;
        if (walk->dir != nullptr && is_past_allocation(walk->dir, index)) {
            return -EFAULT;
        }
        int result = locate_dentry(&walk->cursor, walk->base_clu, index, &walk->location);
        if (result == 0) {
            result = read_walk_sector(walk, continues);
        }
        if (result < 0) {
            return result;
        }
        walk->first_index = index - walk->location.offset / DENTRY_SIZE;
        walk->loaded_entries = sv->sector_size / DENTRY_SIZE;
    }
    walk->location.offset = (index - walk->first_index) * DENTRY_SIZE;
    *entry = walk->sector_buf.get() + walk->location.offset;
    return 0;
}

int get_lfn_chars(const u8 *slot, u16 *units) {
    for (u32 unit = 0; unit < SLOT_UNITS; unit++) {
        units[unit] = load16(slot + slot_unit_offset(unit));
        if (units[unit] == 0) {
            return 0;
        }
    }
    if (load(slot, SLOT_ORDINAL) > SLOT_LAST) {
        units[SLOT_UNITS] = 0;
    }
    return 0;
}

// ---- time stamps ------------------------------------------------------------------------------

void dos_time_date(const tm *t, u16 *date, u16 *time) {
    constexpr int DOS_EPOCH_YEAR = 1980;
    const int years = t->tm_year + 1900 - DOS_EPOCH_YEAR;
    *date = static_cast<u16>(static_cast<unsigned>(years) << 9 |
                             static_cast<unsigned>(t->tm_mon + 1) << 5 |
                             static_cast<unsigned>(t->tm_mday));
    *time = static_cast<u16>(static_cast<unsigned>(t->tm_hour) << 11 |
                             static_cast<unsigned>(t->tm_min) << 5 |
                             static_cast<unsigned>(t->tm_sec / 2));
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
