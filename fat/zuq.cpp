// The reserved files of the ZUQ flash driver: pool and log.
//
// Both are in the root directory. Intentional: nothing is rolled back. Files and clusters created
// before a failure stay.

#include "fat/internal.h"

#include <cerrno>
#include <cstring>

using namespace fat;

namespace {

using reserved_name = char[DOS_CSTRING_SIZE];
constexpr reserved_name POOL_NAME = "ZUQ_POOL.SY$";
constexpr reserved_name LOG_NAME = "$ZUQ_LOG.LO$";
constexpr u32 LOG_BYTES = 128 * 1024; // at least; rounded up to full clusters
constexpr u32 RESERVED_ATTR = ATTR_READ_ONLY | ATTR_HIDDEN | ATTR_SYSTEM;
constexpr int ROOT_ID = 0;

// Creates a file in the root directory from a copy of its name, which the conversion changes.
int create_reserved(oentry *root, const reserved_name &name) {
    reserved_name copy;
    std::memcpy(copy, name, sizeof copy);
    return do_create(root, copy, DENTRY_FILE);
}

// Sets size and attributes of the file, in its record and on the medium.
int finish_entry(int id, const oentry *entry, u32 size) {
    store(entry->dentry, SHORT_ATTR, load(entry->dentry, SHORT_ATTR) | RESERVED_ATTR);
    store(entry->dentry, SHORT_FILE_SIZE, size);
    return fat_update_entry(id);
}

// ---- pool ----

void fill_pool_header(u8 *cluster_data, u32 index, u32 cluster) {
    constexpr u32 ALL_ONES = 0xFFFFFFFF;
    store(cluster_data, POOL_INDEX, index);
    store(cluster_data, POOL_ZERO, 0);
    store(cluster_data, POOL_FIRST, cluster);
    store(cluster_data, POOL_SECOND, cluster);
    store(cluster_data, POOL_ONE, 1);
    store(cluster_data, POOL_FIRST_MARK, ALL_ONES);
    store(cluster_data, POOL_SECOND_MARK, ALL_ONES);
}

// Writes the one cluster of the pool; `cluster_data` has its size and is zeroed. The cluster number
// is 0 if the search for a free cluster met a damaged FAT entry.
int write_pool_cluster(u8 *cluster_data, u32 index, u32 cluster) {
    fill_pool_header(cluster_data, index, cluster);
    u32 sector = 0;
    const bool is_in_root_area = cluster == 0 && sv->fat_type != 32; // lookups take 0 for the root
    const int result = is_in_root_area ? -EINVAL : get_phy_sector_by_offset(cluster, 0, &sector);
    if (result < 0) {
        report_at("zuq_make_pool", __LINE__, "Failed to get sector!\n\n");
        return result;
    }
    if (write_medium(cluster_data, sector, sv->sec_per_clus) !=
        static_cast<int>(sv->sec_per_clus)) {
        report_at("zuq_make_pool", __LINE__, "Failed to write sector!\n\n");
        return -EIO;
    }
    return 0;
}

int fill_pool(int id, u32 index, u8 *cluster_data) {
    oentry *pool = entry_of(id);
    if (pool == nullptr || pool->dentry == nullptr) {
        report_at("zuq_make_pool", __LINE__, "Failed to get file entry!\n\n");
        return -ENOENT;
    }
    u32 cluster = 0;
    int result = fat_alloc_cluster(pool, &cluster);
    if (result < 0) {
        report_at("zuq_make_pool", __LINE__, "Failed to allocate cluster!\n\n");
        return result;
    }
    result = write_pool_cluster(cluster_data, index, cluster);
    if (result < 0) {
        return result;
    }
    result = finish_entry(id, pool, cluster_bytes());
    if (result < 0) {
        report_at("zuq_make_pool", __LINE__, "Failed to update entry!\n\n");
    }
    return result;
}

// ---- log ----

// Refuses cluster 0, as for the pool: clearing it would hit another area.
int append_cleared_cluster(oentry *log) {
    u32 cluster = 0;
    const int result = fat_alloc_cluster(log, &cluster);
    if (result < 0) {
        return result;
    }
    return is_data_cluster(cluster) ? clear_cluster(cluster) : -EINVAL;
}

int fill_log(int id) {
    oentry *log = entry_of(id);
    if (log == nullptr || log->dentry == nullptr) {
        report_at("zuq_make_log", __LINE__, "Failed to get entry!\n\n");
        return -ENOENT;
    }
    const u32 count = div_ceil(LOG_BYTES, cluster_bytes());
    int result = 0;
    for (u32 i = 0; i < count && result >= 0; i++) {
        result = append_cleared_cluster(log);
    }
    if (result >= 0) {
        result = finish_entry(id, log, count * cluster_bytes());
    }
    if (result < 0) {
        report_at("zuq_make_log", __LINE__, "Failed to get parent!\n\n"); // for every error
    }
    return result;
}

// ---- finding clusters ----

bool is_at_least(u32 cluster, u32 key) {
    return cluster >= key;
}

// The second cluster of the chain. Intentional: a failed read counts as the end of the chain.
int second_cluster(u32 start) {
    const int next = fat_read_clus(start);
    return next > 0 && !is_end_of_chain(static_cast<u32>(next)) ? next : -ENOENT;
}

} // namespace

namespace fat {

int find_cluster(u32 start, u32 stop, u32 key, bool (*predicate)(u32 cluster, u32 key)) {
    core::table fat(here());
    core::cycle_detector detector;
    u32 cluster = start;
    while (cluster != FAT_END_MARK || stop != FAT_END_MARK) {
        if (predicate(cluster, key)) {
            return static_cast<int>(cluster);
        }
        const int next = detector.closes_cycle(cluster) ? -EINVAL : follow(&fat, cluster);
        if (next < 0) {
            REPORT("Failed to read cluster!\n\n");
            return next;
        }
        if (next == 0 || is_end_of_chain(static_cast<u32>(next))) {
            return -ENOENT;
        }
        cluster = static_cast<u32>(next);
    }
    return -ENOENT;
}

} // namespace fat

int zuq_make_pool(void) {
    const public_call call;
    const heap_ptr<u8> cluster_data = zeroed_bytes(sv != nullptr ? cluster_bytes() : 0);
    if (cluster_data == nullptr) {
        REPORT("Failed to allocate memory!\n\n");
        return -ENOMEM;
    }
    oentry *root = entry_of(ROOT_ID);
    if (root == nullptr) {
        REPORT("root directory isn't open\n");
        return -EINVAL;
    }
    const int index = create_reserved(root, POOL_NAME);
    if (index < 0) {
        REPORT("Failed to create pool file!\n\n");
        return index;
    }
    const int id = fat_entry_open(root, static_cast<u32>(index));
    if (id < 0) {
        REPORT("Failed to open pool file!\n\n");
        return id;
    }
    const int result = fill_pool(id, static_cast<u32>(index), cluster_data.get());
    (void)fat_close(id); // cannot fail: the id is open
    return result;
}

int zuq_make_log(void) {
    const public_call call;
    oentry *root = entry_of(ROOT_ID);
    if (root == nullptr) {
        REPORT("Failed to get parent!\n\n");
        return -EINVAL;
    }
    const int index = create_reserved(root, LOG_NAME);
    if (index < 0) {
        REPORT("Failed to create!\n\n");
        return index;
    }
    const int id = fat_entry_open(root, static_cast<u32>(index));
    if (id < 0) {
        REPORT("Failed to open!\n\n");
        return id;
    }
    const int result = fill_log(id);
    (void)fat_close(id); // cannot fail: the id is open
    return result;
}

int fat_find_pool(uint32_t key) {
    const public_call call;
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    const int id = fat_open_file(POOL_NAME);
    if (id < 0) {
        REPORT("Failed to open file!\n\n");
        return id;
    }
    const oentry *pool = entry_of(id); // Intentional: the id stays open
    if (pool == nullptr) {
        REPORT("Failed to get file entry!\n\n");
        return -ENOENT;
    }
    return key == 0 ? second_cluster(pool->start)
                    : find_cluster(pool->start, FAT_END_MARK, key, is_at_least);
}
