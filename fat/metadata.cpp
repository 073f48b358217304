// Items of open entries that programs read and change, and the paths of clusters.
//
// Items are read from and stored in the dentry copy of the record; only fat_update_entry() writes
// them to the medium.

#include "fat/internal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

using namespace fat;

namespace fat {

namespace {

enum : int { ITEM_CLUSTER = 1, ITEM_SYSID = 2, ITEM_CMSEC = 3 };

constexpr u32 LOW_BYTE = 0xFF;

// The record of an id that has a dentry copy, or null.
oentry *entry_with_dentry(int id) {
    oentry *entry = entry_of(id);
    return entry != nullptr && entry->dentry != nullptr ? entry : nullptr;
}

void report_type(const char *function, int type) {
    report_at(function, __LINE__, "Invalid type: %d\n\n", type);
}

// ---- printing ----

const char *kind_label(u32 type) {
    switch (type) {
    case DENTRY_FILE:
        return "file";
    case DENTRY_DIR:
        return "directory";
    case KIND_SYMLINK:
        return "symlink";
    default:
        return "";
    }
}

void print_entry(const oentry *entry, FILE *stream) {
    const u32 type = entry_type(entry->dentry);
    const u32 size = type == DENTRY_FILE ? load(entry->dentry, SHORT_FILE_SIZE) : entry->allocated;
    std::fprintf(stream, "[%s] %s (%d Bytes)\n", kind_label(type), entry->name,
                 static_cast<int>(size));
    std::fputs("Entry::\n", stream);
    print_short_entry(stream, entry->dentry);
}

// ---- the owner of a cluster ----

// A search for the entry whose chain contains a cluster.
struct owner_search {
    u32 cluster;
    u32 *parent;     // output: base cluster of the owner's directory; may be null
    char *path;      // output: path of the directory being searched
    u32 directories; // number still allowed to open, limited by the number of clusters
};

int search_directory(owner_search *search, oentry *dir);

bool owns_cluster(const owner_search &search, u32 start) {
    return find_cluster(start, FAT_END_MARK, search.cluster,
                        [](u32 cluster, u32 key) { return cluster == key; }) >= 0;
}

int append_name(owner_search *search, oentry *dir, u32 index) {
    char name[LONG_NAME_UNITS + 1] = {};
    const int result = get_name_of_entry(base_cluster(dir), index, name, LONG_NAME_UNITS);
    if (result < 0) {
        return result;
    }
    const std::size_t length = std::strlen(search->path);
    const std::size_t name_length = std::strlen(name);
    if (length + name_length + 1 >= MAX_PATHNAME) {
        return -ENAMETOOLONG;
    }
    search->path[length] = '/';
    std::memcpy(search->path + length + 1, name, name_length + 1);
    return 0;
}

// Ends the search at entry `index` of the directory.
int found_owner(const owner_search &search, const oentry *dir, u32 index) {
    if (search.parent != nullptr) {
        *search.parent = base_cluster(dir);
    }
    return static_cast<int>(index);
}

int visit_file(owner_search *search, oentry *dir, u32 index, const u8 *entry) {
    const u32 start = start_cluster(entry);
    if (start == 0 || !owns_cluster(*search, start)) {
        return -ENOENT;
    }
    const int found = found_owner(*search, dir, index);
    const int named = append_name(search, dir, index);
    return named < 0 ? named : found;
}

// Opens the directory at entry `index` of `dir` and searches it.
int search_below(owner_search *search, oentry *dir, u32 index) {
    if (search->directories == 0) {
        report_at("find_entry_with_clu", __LINE__, "Check here!\n\n");
        return -EINVAL;
    }
    search->directories--;
    const int id = fat_entry_open(dir, index);
    if (id <= 0) {
        return id < 0 ? id : -ENOENT; // ".." to the root, whose search is already in progress
    }
    const int result = search_directory(search, entry_of(id));
    (void)fat_close(id); // cannot fail: the id is open
    return result;
}

int visit_directory(owner_search *search, oentry *dir, u32 index, const u8 *entry) {
    const std::size_t length = std::strlen(search->path);
    const u32 start = start_cluster(entry);
    int result = append_name(search, dir, index);
    if (result < 0) {
        return result;
    }
    if (owns_cluster(*search, start)) {
        return found_owner(*search, dir, index);
    }
    result = search_below(search, dir, index);
    if (result == -ENOENT) {
        search->path[length] = '\0';
    }
    return result;
}

int visit_entry(owner_search *search, oentry *dir, u32 index, const u8 *entry) {
    switch (entry_type(entry)) {
    case DENTRY_FILE:
        return visit_file(search, dir, index, entry);
    case DENTRY_DIR:
        return visit_directory(search, dir, index, entry);
    default:
        return -ENOENT;
    }
}

int search_directory(owner_search *search, oentry *dir) {
    dentry_walk walk(dir);
    if (!walk.slots.reserve()) {
        report_at("find_entry_with_clu", __LINE__, "Check here!\n\n");
        return -ENOMEM;
    }
    const u32 count = dir_entry_count(dir);
    for (u32 index = dir == sv->root_dir ? 0 : DOT_ENTRIES; index < count; index++) {
        u8 *entry = nullptr;
        int result = walk_to(&walk, index, &entry);
        if (result < 0) {
            const bool is_end = result == -EFAULT;
            report_at("find_entry_with_clu", __LINE__, "%s!\n\n",
                      is_end ? "Failed to get entry" : "Check here");
            return is_end ? -ENOENT : result;
        }
        if (entry[SHORT_NAME.offset] == NAME_UNUSED) {
            return -ENOENT;
        }
        result = visit_entry(search, dir, index, entry);
        if (result != -ENOENT) {
            return result;
        }
    }
    return -ENOENT;
}

} // namespace

// Writes both outputs through the search record.
// NOLINTNEXTLINE(readability-non-const-parameter)
int find_entry_with_clu(oentry *dir, u32 cluster, u32 *parent, char *path) {
    if (dir == nullptr || path == nullptr) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    owner_search search = {cluster, parent, path, sv->num_clusters};
    return search_directory(&search, dir);
}

} // namespace fat

// ---- items ------------------------------------------------------------------------------------

int fat_get(int id, int type, uint32_t *value) {
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    const oentry *entry = entry_with_dentry(id);
    if (entry == nullptr) {
        REPORT("Invalid fd!\n\n");
        return -EBADF;
    }
    if (value == nullptr) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    switch (type) {
    case ITEM_CLUSTER:
        *value = start_cluster(entry->dentry);
        return 0;
    case ITEM_SYSID:
        *value = load(entry->dentry, SHORT_SYSID);
        return 0;
    case ITEM_CMSEC:
        *value = load(entry->dentry, SHORT_CMSEC);
        return 0;
    default:
        report_type(__func__, type);
        return -EINVAL;
    }
}

int fat_set(int id, int type, uint32_t value) {
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    const oentry *entry = entry_with_dentry(id);
    if (entry == nullptr) {
        return -EBADF;
    }
    switch (type) {
    case ITEM_CLUSTER:
        set_start_cluster(entry->dentry, value);
        return 0;
    case ITEM_SYSID:
        store(entry->dentry, SHORT_SYSID, value);
        return 0;
    case ITEM_CMSEC:
        store(entry->dentry, SHORT_CMSEC, value);
        return 0;
    default:
        report_type(__func__, type);
        return -EINVAL;
    }
}

int fat_get_cluster(int id, uint32_t *value) {
    return fat_get(id, ITEM_CLUSTER, value);
}

int fat_set_cluster(int id, uint32_t value) {
    return fat_set(id, ITEM_CLUSTER, value);
}

int fat_get_sysid(int id, uint32_t *value) {
    return fat_get(id, ITEM_SYSID, value);
}

int fat_set_sysid(int id, uint32_t value) {
    return fat_set(id, ITEM_SYSID, value & LOW_BYTE);
}

int fat_get_cmsec(int id, uint32_t *value) {
    return fat_get(id, ITEM_CMSEC, value);
}

int fat_set_cmsec(int id, uint32_t value) {
    return fat_set(id, ITEM_CMSEC, value & LOW_BYTE);
}

int fat_update_entry(int id) {
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    const oentry *entry = entry_with_dentry(id);
    if (entry == nullptr) {
        REPORT("Invalid arg!\n\n");
        return -EBADF;
    }
    const heap_ptr<u8> sector = zeroed_bytes(sv->sector_size);
    if (sector == nullptr) {
        REPORT("Check here!\n\n");
        return -ENOMEM;
    }
    // Intentional: a read of 0 sectors is not an error, a write of 0 sectors is.
    if (!lies_in_one_sector(*entry) || read_medium(sector.get(), entry->dentry_sector, 1) < 0) {
        REPORT("IO Error!\n\n");
        return -EIO;
    }
    std::memcpy(sector.get() + entry->dentry_offset, entry->dentry, DENTRY_SIZE);
    if (write_medium(sector.get(), entry->dentry_sector, 1) != 1) {
        REPORT("IO Error!\n\n");
        return -EIO;
    }
    return 0;
}

// ---- printing ---------------------------------------------------------------------------------

int fat_fstat(int id, FILE *stream) {
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    const oentry *entry = entry_with_dentry(id);
    if (entry == nullptr) {
        REPORT("Invalid fd!\n\n");
        return -EBADF;
    }
    FILE *out = stream_or_stdout(stream);
    print_entry(entry, out);
    std::fputs("Cluster chain::\n", out);
    return fat_list_chains(id, out);
}

int fat_list_chains(int id, FILE *stream) {
    constexpr int NUMBERS_IN_LINE = 10;
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    oentry *entry = entry_of(id);
    if (entry == nullptr) {
        REPORT("Invalid fd!\n\n");
        return -EBADF;
    }
    u32 *array = nullptr;
    const int count = fat_get_chains(entry, &array);
    if (count <= 0) {
        REPORT("failed to get chain count!\n\n");
        return count;
    }
    const heap_ptr<u32> clusters(array);
    FILE *out = stream_or_stdout(stream);
    for (int i = 0; i + 1 < count; i++) { // the last element is the end mark
        std::fprintf(out, "[%5d] ", static_cast<int>(array[i]));
        if (i % NUMBERS_IN_LINE == NUMBERS_IN_LINE - 1) {
            std::fputc('\n', out);
        }
    }
    std::fputc('\n', out);
    return 0;
}

// ---- paths ------------------------------------------------------------------------------------

int fat_find_pathname(uint32_t cluster, char *buffer, uint32_t size) {
    const public_call call;
    if (buffer == nullptr || size < MAX_PATHNAME) {
        REPORT("Invalid arg!\n\n");
        return -EINVAL;
    }
    if (not_mounted(__func__)) {
        return -EINVAL;
    }
    if (!is_data_cluster(cluster)) {
        REPORT("Invalid arg!\n\n");
        return -EINVAL;
    }
    std::memset(buffer, 0, size);
    return find_entry_with_clu(sv->root_dir, cluster, nullptr, buffer);
}

int fat_getcwd(char *buffer, uint32_t size) {
    const public_call call;
    constexpr char ROOT[] = "/";
    if (not_mounted(__func__)) {
        return -EINVAL;
    }
    const oentry *current = sv->current_dir;
    if (current == nullptr) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    if (current == sv->root_dir) {
        if (buffer == nullptr || size < sizeof ROOT) {
            REPORT("Invalid arg!\n\n");
            return -EINVAL;
        }
        std::memset(buffer, 0, size);
        std::memcpy(buffer, ROOT, sizeof ROOT);
        return 0;
    }
    const int found = fat_find_pathname(base_cluster(current), buffer, size);
    if (found < 0) {
        REPORT("Failed to get cwd!\n\n");
        return found;
    }
    return 0;
}
