// Open entries: the table of 512 slots, its bitmap, and the lifetime of the records in it.
//
// Invariants: a slot holds a record exactly if its bit is set; slot 0 holds the root directory and
// nothing else; `root_dir` and `current_dir` of the volume are null or point to records in the
// table. Records created by a path lookup are never in the table; the caller of the lookup frees
// them.

#include "fat/internal.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

using namespace fat;

namespace {

constexpr u32 WORD_BITS = 32;

bool is_dot_dot_to_root(const u8 *dentry) {
    return std::memcmp(dentry + SHORT_NAME.offset, DOT_DOT_NAME, sizeof DOT_DOT_NAME) == 0 &&
           start_cluster(dentry) == 0;
}

void set_fat16_root(oentry *entry) {
    entry->start = sv->rdir_start;
    entry->last = sv->data_start - 1;
    entry->allocated = FAT16_ROOT_ENTRIES * DENTRY_SIZE;
}

// Counts the clusters of a record whose start is set. If the chain leads to a free entry, drops the
// dentry copy of the record, with result 0.
int measure_entry(oentry *entry) {
    entry->pos = 0;
    if (entry->start == 0) {
        entry->last = 0;
        entry->allocated = 0;
        return 0;
    }
    const int clusters = fat_count_clusters(entry->start, &entry->last);
    if (clusters > 0) {
        entry->allocated = static_cast<u32>(clusters) * cluster_bytes();
        return 0;
    }
    std::free(entry->dentry);
    entry->dentry = nullptr;
    return clusters;
}

// Opens an entry that was read from `location`; creates its record.
int open_dentry(const oentry *parent, u32 index, const u8 *dentry,
                const dentry_location &location) {
    heap_ptr<oentry> entry = zeroed_records<oentry>();
    if (entry == nullptr) {
        report_at("fat_entry_open", __LINE__, "cannot allocate memory\n");
        return -ENOMEM;
    }
    const int result = fat_set_oentry(dentry, location.sector, location.offset, entry.get());
    if (result < 0) {
        report_at("fat_entry_open", __LINE__, "Cannot set oentry!\n\n");
        return result;
    }
    if (entry->dentry != nullptr && is_dot_dot_to_root(entry->dentry)) {
        return 0; // id of the root, whose record was copied
    }
    entry->parent_clus = base_cluster(parent);
    entry->dentry_index = index;
    const int id = register_oentry(entry.get());
    if (id < 0) {
        std::free(entry->dentry);
        return id;
    }
    (void)entry.release(); // the table owns the record
    return id;
}

void store_leaf_name(oentry *entry, const char *leaf) {
    std::strncpy(entry->name, leaf, sizeof entry->name - 1);
    entry->name[sizeof entry->name - 1] = '\0';
}

// Opens the entry of the name `leaf` in the directory.
int open_leaf(oentry *parent, char *leaf) {
    const int index = fat_find_dentry(parent, leaf, nullptr);
    if (index < 0) {
        report_at("fat_open", __LINE__, "failed to find directory entry!\n\n");
        return index;
    }
    const int id = fat_entry_open(parent, static_cast<u32>(index));
    if (id <= 0) {
        return id;
    }
    oentry *opened = entry_of(id);
    if (opened == nullptr) {
        return -ENOENT;
    }
    store_leaf_name(opened, leaf);
    return id;
}

// Closes an entry of the wrong kind.
int refuse_kind(const char *function, int id, int error) {
    report_at(function, __LINE__, "attempt to open directory!\n\n");
    (void)fat_close(id); // cannot fail: the id is open
    return error;
}

int open_directory_path(const char *path) {
    const int id = fat_open(path);
    const oentry *entry = id > 0 ? entry_of(id) : nullptr;
    if (entry != nullptr && !is_live_directory(entry->dentry)) {
        return refuse_kind("fat_open_dir", id, -ENOTDIR);
    }
    return id;
}

int open_file_path(const char *path) {
    const int id = fat_open(path);
    const oentry *entry = id > 0 ? entry_of(id) : nullptr;
    if (entry != nullptr && is_live_directory(entry->dentry)) {
        return refuse_kind("fat_open_file", id, -EISDIR);
    }
    return id;
}

} // namespace

oentry *oentry_table[MAX_ENTRIES] = {};
uint32_t oentry_map[MAX_ENTRIES / WORD_BITS] = {};

namespace fat {

// ---- the table --------------------------------------------------------------------------------

oentry *entry_of(int id) {
    return static_cast<u32>(id) < MAX_ENTRIES ? oentry_table[id] : nullptr;
}

int find_free_slot(const u32 *map, u32 bits) {
    for (u32 word = 0; word < bits / WORD_BITS; word++) {
        if (map[word] != ~0U) {
            return static_cast<int>(word * WORD_BITS) + std::countr_one(map[word]);
        }
    }
    return -1;
}

void mark_slot(u32 *map, u32 id) {
    map[id / WORD_BITS] |= 1U << (id % WORD_BITS);
}

void unmark_slot(u32 *map, u32 id) {
    map[id / WORD_BITS] &= ~(1U << (id % WORD_BITS));
}

int register_oentry(oentry *entry) {
    const int id = find_free_slot(oentry_map, MAX_ENTRIES);
    if (id <= 0) { // slot 0 is reserved for the root
        REPORT("Too many open files\n");
        return -EMFILE;
    }
    oentry_table[id] = entry;
    mark_slot(oentry_map, static_cast<u32>(id));
    return id;
}

void put_oentry(int id) {
    oentry *entry = entry_of(id);
    if (entry == nullptr) {
        return;
    }
    entry->ref_count--;
    if (entry->ref_count == 0) {
        free_oentry(entry);
        oentry_table[id] = nullptr;
        unmark_slot(oentry_map, static_cast<u32>(id));
    }
}

void free_oentry(oentry *entry) {
    if (entry == nullptr) {
        return;
    }
    if (sv != nullptr && sv->root_dir == entry) {
        sv->root_dir = nullptr;
    }
    if (sv != nullptr && sv->current_dir == entry) {
        sv->current_dir = sv->root_dir;
    }
    std::free(entry->dentry);
    std::free(entry);
}

// ---- filling and opening records --------------------------------------------------------------

int fat_set_oentry(const u8 *dentry_image, u32 sector, u32 offset, oentry *entry) {
    if (dentry_image != nullptr && is_dot_dot_to_root(dentry_image)) {
        if (sv->root_dir == nullptr) {
            REPORT("Check here!\n\n");
            return -EINVAL;
        }
        *entry = *sv->root_dir;
        return 0;
    }
    entry->ref_count = 1;
    entry->readdir_pos = 0;
    if (dentry_image == nullptr) {
        entry->dentry = nullptr;
        entry->dentry_sector = 0;
        entry->dentry_offset = 0;
        if (sv->fat_type != 32) {
            set_fat16_root(entry);
            return 0;
        }
        entry->start = sv->root_clus;
        return measure_entry(entry);
    }
    heap_ptr<u8> copy = zeroed_bytes(DENTRY_SIZE);
    if (copy == nullptr) {
        REPORT("cannot allocate memory\n");
        return -ENOMEM;
    }
    std::memcpy(copy.get(), dentry_image, DENTRY_SIZE);
    entry->start = start_cluster(dentry_image);
    entry->dentry_sector = sector;
    entry->dentry_offset = offset;
    entry->dentry = copy.release();
    return measure_entry(entry);
}

int fat_entry_open(oentry *parent, u32 index) {
    const heap_ptr<u8> sector = zeroed_bytes(sv->sector_size);
    if (sector == nullptr) {
        REPORT("cannot allocate memory\n");
        return -ENOMEM;
    }
    u8 *dentry = nullptr;
    dentry_location location = {};
    const int result = fat_get_dentry(parent, index, &dentry, sector.get(), &location);
    if (result < 0) {
        REPORT("Cannot get dentry!\n\n");
        return result;
    }
    return open_dentry(parent, index, dentry, location);
}

int open_root_directory() {
    oentry *root = oentry_table[0];
    if (root == nullptr) {
        root = zeroed_records<oentry>().release();
        if (root == nullptr) {
            REPORT("failed to allocate memory!\n\n");
            return -ENOMEM;
        }
        oentry_table[0] = root;
    }
    *root = oentry{};
    const int result = fat_set_oentry(nullptr, 0, 0, root);
    if (result < 0) {
        REPORT("failed to set oentry!\n\n");
        free_oentry(root);
        oentry_table[0] = nullptr;
        unmark_slot(oentry_map, 0);
        return result;
    }
    sv->root_dir = root;
    sv->current_dir = root;
    mark_slot(oentry_map, 0);
    return 0;
}

} // namespace fat

// ---- public calls -----------------------------------------------------------------------------

int fat_open(const char *path) {
    const public_call call;
    if (path == nullptr) {
        REPORT("NULL path!\n\n");
        return -EINVAL;
    }
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    path_buffer name = {};
    int result = fat_get_name(path, name);
    if (result <= 0) {
        REPORT("failed to get name!\n\n");
        return result;
    }
    oentry *parent = nullptr;
    char *leaf = nullptr;
    result = fat_path_lookup(name, &parent, &leaf);
    if (result < 0) {
        REPORT("failed to path_lookup()\n\n");
        return result;
    }
    if (parent == nullptr && leaf == nullptr) {
        if (sv->root_dir == nullptr) {
            REPORT("invalid path!\n\n");
            return -EINVAL;
        }
        return 0;
    }
    result = open_leaf(parent, leaf);
    free_lookup_result(parent);
    return result;
}

int fat_open_dir(const char *path) {
    const public_call call;
    // For a path, the lookup checks whether the volume is mounted.
    if (path == nullptr ? not_mounted(__func__) : no_volume(__func__)) {
        return with_errno(-EINVAL);
    }
    return with_errno(path == nullptr ? open_root_directory() : open_directory_path(path));
}

int fat_open_file(const char *path) {
    const public_call call;
    if (path == nullptr) {
        REPORT("NULL path!\n\n");
        return with_errno(-EINVAL);
    }
    if (no_volume(__func__)) {
        return with_errno(-EINVAL);
    }
    return with_errno(open_file_path(path));
}

int fat_close(int id) {
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    if (id == 0 || id >= static_cast<int>(MAX_ENTRIES)) {
        REPORT("Invalid id!(%d)\n\n", id);
        return -EINVAL;
    }
    put_oentry(id); // ignores a negative id
    return 0;
}

int get_current() {
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    if (sv->current_dir == nullptr) {
        REPORT("NULL current directory!\n\n");
        return -1;
    }
    oentry *const *slot =
        std::find(std::begin(oentry_table), std::end(oentry_table), sv->current_dir);
    if (slot == std::end(oentry_table)) {
        REPORT("NO current directory!\n\n");
        return -EINVAL;
    }
    return static_cast<int>(slot - std::begin(oentry_table));
}

int fat_set_current(int did) {
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    oentry *entry = entry_of(did);
    if (entry == nullptr) {
        REPORT("Invalid did!\n\n");
        return -EBADF;
    }
    const int old = get_current();
    if (old < 0) {
        return old;
    }
    const bool is_root = did == 0 && entry->dentry == nullptr;
    if (!is_root && !is_live_directory(entry->dentry)) {
        return -ENOTDIR;
    }
    sv->current_dir = entry;
    if (did != 0) {
        entry->ref_count++;
    }
    if (old != 0) {
        (void)fat_close(old); // drops the reference of the former current directory
    }
    return did;
}
