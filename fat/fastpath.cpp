// Fast-open paths: the location of a file's directory entry and a check value, as 16 letters by
// which the ZUQ driver opens the file without a search.
//
// The walk over a directory stores its position in the record of the directory: `readdir_pos` is
// the index of the next entry, `readdir_clus` the cluster that contains it. The position only moves
// forward.

#include "fat/internal.h"

#include <cerrno>
#include <cstring>

using namespace fat;

namespace {

constexpr u32 PATH_SIZE = core::FAST_PATH_SIZE;

void write_path(char *path, const dentry_location &location, const u8 *entry) {
    core::store_fast_path(path, sv->sector_size, location, entry);
}

} // namespace

namespace fat {

namespace {

// Results for one entry, besides the negative errors of the walk.
enum : int { AT_END = 0, FOUND = 1, CONTINUE = 2 };

// Units of a long name, with room for a terminator after 256 units.
using unit_buffer = u16[LONG_NAME_UNITS + 1];

// State of one call of do_readdir_fast(): the record that stores the position, the outputs, and the
// sector read last.
struct fast_walk {
    oentry *dir;
    fat_name *name;
    dentry_location *location;
    u8 *output; // the caller's copy of the entry
    heap_ptr<u8> sector_buf = zeroed_bytes(sv->sector_size);
    heap_ptr<u8> slot_buf = zeroed_bytes(sv->sector_size); // sector of the current long-name slot
    bool copies_output = true; // each entry is copied to the output, up to the first long name
    bool loaded = false;
    u32 sector = 0;       // number of the sector in the buffer
    u32 cluster = 0;      // cluster of that sector
    u32 sector_index = 0; // index of that sector in the cluster, or in the root area
    core::cycle_detector detector = {};

    // A FAT16 directory without a dentry copy or without a cluster counts as the root area, even if
    // it is another directory.
    [[nodiscard]] bool is_fixed_root() const {
        return sv->fat_type != 32 && (dir->dentry == nullptr || dir->start == 0);
    }
    [[nodiscard]] u32 position() const {
        return dir->readdir_pos;
    }
};

u32 entries_per_sector() {
    return sv->sector_size / DENTRY_SIZE;
}

u32 entries_per_cluster() {
    return sv->sec_per_clus * entries_per_sector();
}

int report_walk(int line, int error) {
    report_at("do_readdir_fast", line, "Check here!\n\n");
    return error;
}

// Index of the next entry, counted from the start of readdir_clus or of the root area.
u32 local_index(const fast_walk &walk) {
    return walk.is_fixed_root() ? walk.position() : walk.position() % entries_per_cluster();
}

// Reads the sector of the next entry, unless it is in the buffer.
int load_sector(fast_walk *walk) {
    const u32 sector_index = local_index(*walk) / entries_per_sector();
    const u32 cluster = walk->dir->readdir_clus;
    if (walk->loaded && walk->cluster == cluster && walk->sector_index == sector_index) {
        return 0;
    }
    walk->loaded = false;
    const int located = get_phy_sector(cluster, sector_index, &walk->sector);
    if (located < 0) {
        return report_walk(__LINE__, located);
    }
    if (read_medium(walk->sector_buf.get(), walk->sector, 1) != 1) {
        report_at("do_readdir_fast", __LINE__, "cannot read sectors\n");
        return -EIO;
    }
    walk->cluster = cluster;
    walk->sector_index = sector_index;
    walk->loaded = true;
    return 0;
}

// Advances readdir_clus by `links` links. Returns 1, 0 if the chain ends before, or a negative
// value, which is -1 for a chain with a cycle.
int advance_cluster(fast_walk *walk, u32 links) {
    u32 cluster = walk->dir->readdir_clus;
    for (u32 i = 0; i < links; i++) {
        const int result = get_next_cluster(cluster, 1, &cluster);
        if (result == 0) {
            return 0;
        }
        if (result < 0 || walk->detector.closes_cycle(cluster)) {
            return report_walk(__LINE__, result < 0 ? result : -1);
        }
    }
    walk->dir->readdir_clus = cluster;
    return 1;
}

// Advances the walk past one entry.
int pass_entry(fast_walk *walk) {
    walk->dir->readdir_pos++;
    if (walk->is_fixed_root() || walk->position() % entries_per_cluster() != 0) {
        return CONTINUE;
    }
    const int advanced = advance_cluster(walk, 1);
    return advanced == 1 ? CONTINUE : advanced;
}

void store_name(const fast_walk &walk, const char *text) {
    if (walk.name == nullptr || walk.name->cstring == nullptr) {
        return;
    }
    const std::size_t length = strnlen(text, LONG_NAME_UNITS - 1);
    std::memcpy(walk.name->cstring, text, length);
    walk.name->cstring[length] = '\0';
}

void store_short_name(const fast_walk &walk, const u8 *entry) {
    char text[DOS_CSTRING_SIZE] = {};
    convert_dosname_to_cstring(entry, text, static_cast<u8>(load(entry, SHORT_SYSID)));
    store_name(walk, text);
}

// A long name that is not representable in the encoding is replaced by the short one.
void store_long_name(const fast_walk &walk, const u16 *units, const u8 *short_entry) {
    char text[LONG_NAME_UNITS + 1] = {};
    if (convert_uname_to_cstring(units, text) >= 0) {
        store_name(walk, text);
    } else {
        store_short_name(walk, short_entry);
    }
}

// Finds the location of the short entry `slots` entries after the position of the walk, counted
// from its current cluster.
int locate_short_entry(const fast_walk &walk, u32 slots, dentry_location *location) {
    const u32 index = local_index(walk) + slots;
    u32 sector = 0;
    const int located =
        get_phy_sector(walk.dir->readdir_clus, index / entries_per_sector(), &sector);
    if (located < 0) {
        return report_walk(__LINE__, located);
    }
    *location = {sector, index % entries_per_sector() * DENTRY_SIZE};
    return 0;
}

// Advances the walk past a long name and its short entry.
int pass_long_name(fast_walk *walk, u32 slots) {
    const u32 next = walk->position() + slots + 1;
    if (!walk->is_fixed_root()) {
        const u32 links = next / entries_per_cluster() - walk->position() / entries_per_cluster();
        const int advanced = advance_cluster(walk, links);
        if (advanced != 1) {
            return advanced;
        }
    }
    walk->dir->readdir_pos = next;
    return FOUND;
}

// Processes a long-name slot. The output remains a copy of the first slot from which a name was
// followed; the driver's check value is computed from it.
int visit_long_name(fast_walk *walk, u8 *slot) {
    u8 *current = slot;
    unit_buffer units = {};
    const int slots = get_long_name_fast(walk->dir->readdir_clus, local_index(*walk), &current,
                                         walk->slot_buf.get(), units);
    walk->copies_output = walk->copies_output && current == slot;
    if (slots < 0) {
        return report_walk(__LINE__, slots);
    }
    if (slots == 0) {
        return pass_entry(walk);
    }
    dentry_location location = {};
    const int located = locate_short_entry(*walk, static_cast<u32>(slots), &location);
    if (located < 0) {
        return located;
    }
    store_long_name(*walk, units, current);
    const int passed = pass_long_name(walk, static_cast<u32>(slots));
    if (passed != FOUND) {
        return passed;
    }
    if (entry_type(current) == DENTRY_DIR) {
        return CONTINUE;
    }
    *walk->location = location;
    return FOUND;
}

int visit_file(fast_walk *walk, const u8 *entry) {
    store_short_name(*walk, entry);
    *walk->location = {walk->sector, walk->position() % entries_per_sector() * DENTRY_SIZE};
    const int passed = pass_entry(walk);
    return passed == CONTINUE ? FOUND : passed;
}

int visit_entry(fast_walk *walk) {
    u8 *entry =
        walk->sector_buf.get() + std::size_t{walk->position() % entries_per_sector()} * DENTRY_SIZE;
    if (walk->copies_output) {
        std::memcpy(walk->output, entry, DENTRY_SIZE);
    }
    switch (entry_type(entry)) {
    case DENTRY_UNUSED:
        return -ENOENT;
    case DENTRY_LFN:
        return sv->long_name == 1 ? visit_long_name(walk, entry) : pass_entry(walk);
    case DENTRY_FILE:
        return visit_file(walk, entry);
    default:
        return pass_entry(walk);
    }
}

// Walks to the next file.
int find_next_file(fast_walk *walk) {
    for (;;) {
        if (walk->is_fixed_root() && walk->position() > FAT16_ROOT_ENTRIES) {
            return AT_END;
        }
        int result = load_sector(walk);
        if (result < 0) {
            return result;
        }
        result = visit_entry(walk);
        if (result != CONTINUE) {
            return result;
        }
    }
}

// ---- long names ----

void report_checksum(u32 index) {
    report_at("get_long_name_fast", __LINE__, "not match checksum(%d)\n", static_cast<int>(index));
}

// Whether the entry is one of the lower slots of the long name.
bool continues_name(const u8 *entry, u8 checksum, u32 index, u16 *uname) {
    if (entry_type(entry) != DENTRY_LFN) {
        report_at("get_long_name_fast", __LINE__, "not extend type(%d)\n", static_cast<int>(index));
        uname[0] = 0;
        return false;
    }
    if (load(entry, SLOT_ORDINAL) > SLOT_LAST) {
        report_at("get_long_name_fast", __LINE__, "not LFN(%d)\n", static_cast<int>(index));
        return false;
    }
    if (load(entry, SLOT_CHECKSUM) != checksum) {
        report_checksum(index);
        return false;
    }
    return true;
}

// Whether the entry is the short entry of the slots.
bool ends_name(const u8 *entry, u8 checksum, u32 index, u16 *uname) {
    const u32 type = entry_type(entry);
    if (type != DENTRY_FILE && type != DENTRY_DIR) {
        report_at("get_long_name_fast", __LINE__, "idx[%d]: not SFN(type:%x)\n",
                  static_cast<int>(index), type);
        return false;
    }
    if (dosname_checksum(entry + SHORT_NAME.offset) != checksum) {
        report_checksum(index);
        uname[0] = 0;
        return false;
    }
    return true;
}

} // namespace

// Writes the output through the walk record.
// NOLINTNEXTLINE(readability-non-const-parameter)
int do_readdir_fast(oentry *dir, u8 *entry, fat_name *name, dentry_location *location) {
    fast_walk walk{dir, name, location, entry};
    if (walk.sector_buf == nullptr || walk.slot_buf == nullptr) {
        return report_walk(__LINE__, -ENOMEM);
    }
    if (walk.is_fixed_root() && walk.position() > FAT16_ROOT_ENTRIES) {
        return report_walk(__LINE__, -1);
    }
    if (walk.position() == 0) {
        dir->readdir_clus = sv->fat_type == 32 || dir->dentry != nullptr ? dir->start : 0;
    }
    const int result = find_next_file(&walk);
    const bool is_past_root = walk.is_fixed_root() && walk.position() > FAT16_ROOT_ENTRIES;
    return result == FOUND && is_past_root ? AT_END : result;
}

// ---- long names -------------------------------------------------------------------------------

int get_long_name_fast(u32 cluster, u32 index, u8 **current, u8 *sector_buf, u16 *uname) {
    core::table fat(here());
    core::chain_cursor cursor;
    return assemble_name(
        current, core::slot_units::ALL, uname,
        [&] {
            index++;
            const int result =
                get_dentry_from(&fat, &cursor, cluster, index, current, sector_buf, nullptr);
            if (result < 0) {
                report_at("get_long_name_fast", __LINE__, "fail to get dentry(%u, %d): %s\n\n",
                          cluster, static_cast<int>(index), std::strerror(-result));
            }
            return result;
        },
        [&](const u8 *next, u8 checksum, bool is_short) {
            return is_short ? ends_name(next, checksum, index, uname)
                            : continues_name(next, checksum, index, uname);
        });
}

int get_next_cluster(u32 cluster, u32 n, u32 *out) {
    if (cluster >= sv->num_clusters + FIRST_DATA_CLUSTER) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    core::table fat(here());
    for (u32 i = 0; i < n; i++) {
        const int next = follow(&fat, cluster);
        if (next > 0 && is_end_of_chain(static_cast<u32>(next))) {
            return 0;
        }
        if (next < 0 || !is_data_cluster(static_cast<u32>(next))) {
            REPORT("Check here!\n\n");
            return -1;
        }
        cluster = static_cast<u32>(next);
    }
    *out = cluster;
    return 1;
}

} // namespace fat

// Never writes to `name`: its type is that of zuq_get_fast_open_path_of_dir().
// cppcheck-suppress constParameter
// NOLINTNEXTLINE(readability-non-const-parameter)
int zuq_get_fast_open_path_of_file(int id, char *name, char *path) {
    if (name == nullptr || path == nullptr) {
        REPORT("NULL path!\n\n");
        return -EINVAL;
    }
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    std::memset(path, 0, PATH_SIZE);
    const oentry *entry = entry_of(id);
    if (entry == nullptr || entry->dentry == nullptr) {
        REPORT("Failed to get file entry!\n\n");
        return -EINVAL;
    }
    write_path(path, {entry->dentry_sector, entry->dentry_offset}, entry->dentry);
    return 0;
}

int zuq_get_fast_open_path_of_dir(int id, char *name, char *path) {
    const public_call call;
    if (name == nullptr || path == nullptr) {
        REPORT("NULL arg!\n\n");
        return -EINVAL;
    }
    if (not_mounted(__func__)) {
        return -EINVAL;
    }
    std::memset(name, 0, LONG_NAME_UNITS);
    std::memset(path, 0, PATH_SIZE);
    oentry *dir = entry_of(id);
    if (dir == nullptr) {
        REPORT("Failed to get file entry!\n\n");
        return -EINVAL;
    }
    // Intentional: the name that the walk finds is not returned.
    fat_name found = {};
    u8 entry[DENTRY_SIZE] = {};
    dentry_location location = {};
    const int result = do_readdir_fast(dir, entry, &found, &location);
    if (result < 0) {
        REPORT("Failed to readdir_fast()!\n\n");
        return result;
    }
    write_path(path, location, entry);
    return result;
}
