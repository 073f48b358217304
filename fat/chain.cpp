// Cluster chains: allocating, clearing, counting, releasing, listing.
//
// Allocation is next-fit: the search goes on behind `last_alloc_clus` of the volume record and
// wraps around once. Every walk ends on a chain that runs in a circle as on one that is broken.

#include "fat/internal.h"

#include <cerrno>

namespace fat {

namespace {

u32 cluster_bytes() {
    return sv->sec_per_clus * sv->sector_size;
}

// A hint outside the volume, its very last cluster included, restarts the search at the beginning.
void correct_hint() {
    if (sv->last_alloc_clus < FIRST_DATA_CLUSTER || sv->last_alloc_clus > sv->num_clusters) {
        sv->last_alloc_clus = FIRST_DATA_CLUSTER - 1;
    }
}

// Stores a free cluster. An error of the second pass other than a full volume is passed over, and
// what `cluster` held before is used; this leniency is meant.
int find_free_cluster(u32 *cluster) {
    int found = fat_free_clus(sv->last_alloc_clus + 1, sv->num_clusters + 1);
    if (found == -ENOENT) {
        found = fat_free_clus(FIRST_DATA_CLUSTER, sv->last_alloc_clus);
        if (found == -ENOENT) {
            report_at("fat_alloc_cluster", __LINE__, "No space left on volume!!\n");
            return -ENOSPC;
        }
    } else if (found < 0) {
        return found;
    }
    if (found > 0) {
        *cluster = static_cast<u32>(found);
    }
    return 0;
}

int write_link(u32 cluster, u32 value) {
    const int result = fat_write_entry(cluster, value);
    if (result < 0) {
        report_at("fat_alloc_cluster", __LINE__, "Failed to write entry!\n\n");
    }
    return result;
}

// Makes the cluster the only one of an entry that had none. The entry's image changes in memory
// only.
void start_chain(oentry *entry, u32 cluster) {
    entry->last = cluster;
    entry->start = cluster;
    entry->allocated += cluster_bytes();
    if (entry->dentry != nullptr) {
        set_start_cluster(entry->dentry, cluster);
    }
}

// Links first and terminates then; where terminating fails the link is taken back.
int append_to_chain(oentry *entry, u32 cluster) {
    int result = write_link(entry->last, cluster);
    if (result < 0) {
        return result;
    }
    result = write_link(cluster, FAT_END_MARK);
    if (result < 0) {
        (void)fat_write_entry(entry->last, FAT_END_MARK); // the first error is the one to tell
        return result;
    }
    entry->last = cluster;
    entry->allocated += cluster_bytes();
    return 0;
}

int link_cluster(oentry *entry, u32 cluster) {
    if (entry != nullptr && (entry->start != 0 || entry->last != 0)) {
        return append_to_chain(entry, cluster);
    }
    const int result = write_link(cluster, FAT_END_MARK);
    if (result == 0 && entry != nullptr) {
        start_chain(entry, cluster);
    }
    return result;
}

// Every open record of a directory that has grown learns its new end: a record that kept the old
// one would link the next cluster into the middle of the chain.
void share_growth(const oentry *grown) {
    for (oentry *record : oentry_table) {
        if (record != nullptr && record != grown && record->start == grown->start &&
            !is_fat16_root(record)) {
            record->last = grown->last;
            record->allocated = grown->allocated;
        }
    }
}

// Takes the new cluster back after it could not be cleared. Where the entry had no cluster before,
// its fields keep the number of the freed one; the hint keeps it in every case.
void undo_growth(oentry *entry, u32 previous_last, u32 cluster) {
    if (previous_last != 0) {
        (void)fat_write_entry(previous_last, FAT_END_MARK); // the clearing error is the one to tell
        entry->last = previous_last;
        entry->allocated -= cluster_bytes();
    }
    (void)fat_write_entry(cluster, FAT_FREE); // likewise
}

// A walk along one chain, link by link.
struct chain_walk {
    u32 cluster;
    circle_guard guard;
    fat_window fat;
};

// The value of the link of the cluster the walk stands on; negative also where the chain has come
// back on itself.
int read_link(chain_walk *walk) {
    if (walk->guard.closes_at(walk->cluster)) {
        return -EINVAL;
    }
    return follow_link(&walk->fat, walk->cluster);
}

} // namespace

// ---- allocation -------------------------------------------------------------------------------

int fat_alloc_cluster(oentry *entry, u32 *cluster) {
    correct_hint();
    const int found = find_free_cluster(cluster);
    if (found < 0) {
        return found;
    }
    const int linked = link_cluster(entry, *cluster);
    if (linked < 0) {
        return linked;
    }
    sv->last_alloc_clus = *cluster;
    return 0;
}

int clear_cluster(u32 cluster) {
    const heap_ptr<u8> zeros = zeroed_bytes(sv->sector_size);
    if (zeros == nullptr) {
        REPORT("Failed to allocate memory!\n\n");
        return -ENOMEM;
    }
    const u64 first =
        sv->data_start + static_cast<u64>(cluster - FIRST_DATA_CLUSTER) * sv->sec_per_clus;
    for (u32 i = 0; i < sv->sec_per_clus; i++) {
        if (write_sectors(zeros.get(), first + i, 1) != 1) {
            REPORT("cannot write cluster(#%d)\n", static_cast<int>(cluster));
            return -EIO;
        }
    }
    return 0;
}

int fat_extend_dir(oentry *entry, u32 *cluster) {
    const u32 previous_last = entry != nullptr ? entry->last : 0;
    u32 new_cluster = 0;
    int result = fat_alloc_cluster(entry, &new_cluster);
    if (result < 0) {
        REPORT("Failed to allocate cluster!\n\n");
        return result;
    }
    result = clear_cluster(new_cluster);
    if (result < 0) {
        undo_growth(entry, previous_last, new_cluster);
        return result;
    }
    if (entry != nullptr) {
        share_growth(entry);
    }
    if (cluster != nullptr) {
        *cluster = new_cluster;
    }
    return 0;
}

// ---- walks ------------------------------------------------------------------------------------

int fat_count_clusters(u32 first, u32 *last) {
    chain_walk walk{first, {}, {}};
    for (int count = 1;; count++) {
        const int next = read_link(&walk);
        if (next < 0) {
            REPORT("Failed to read cluster!\n\n");
            return -EINVAL;
        }
        if (next == 0) {
            return 0;
        }
        if (is_end_of_chain(static_cast<u32>(next))) {
            *last = walk.cluster;
            return count;
        }
        walk.cluster = static_cast<u32>(next);
    }
}

int fat_release_clusters(oentry *entry, u32 keep) {
    chain_walk walk{entry->start, {}, {}};
    for (u32 count = 0;;) {
        const int next = read_link(&walk);
        if (next < 1) {
            REPORT("Failed to read cluster!\n\n");
            return -EINVAL;
        }
        if (count >= keep) {
            const int freed = change_entry(&walk.fat, walk.cluster, FAT_FREE);
            if (freed < 0) {
                REPORT("Failed to read cluster!\n\n");
                return freed;
            }
        }
        count++;
        if (is_end_of_chain(static_cast<u32>(next))) {
            if (walk.cluster != entry->last || count * cluster_bytes() != entry->allocated) {
                REPORT("FAT chain is broken, but truncated all clusters\n");
            }
            return static_cast<int>(count - keep);
        }
        walk.cluster = static_cast<u32>(next);
    }
}

int fat_get_chains(oentry *entry, u32 **array) {
    if (is_fat16_root(entry)) {
        REPORT("Invalid arg!\n\n");
        return -EINVAL;
    }
    if (entry->allocated == 0) {
        return 0;
    }
    const u32 slots = entry->allocated / cluster_bytes() + 1;
    *array = nullptr;
    // One to spare: a chain that is longer than its record says still gets its terminator.
    heap_ptr<u32> chain = zeroed_records<u32>(slots + 1);
    if (chain == nullptr) {
        REPORT("Memory allocation error!\n\n");
        return -ENOMEM;
    }
    u32 *slot = chain.get();
    slot[0] = entry->start;
    u32 i = 0;
    fat_window fat;
    while (i < slots) {
        const int next = follow_link(&fat, slot[i]);
        if (next < 1) {
            REPORT("Failed to read cluster!\n\n");
            return -EINVAL;
        }
        i++;
        if (is_end_of_chain(static_cast<u32>(next))) {
            break;
        }
        slot[i] = static_cast<u32>(next);
    }
    slot[i] = FAT_END_MARK;
    *array = chain.release();
    return static_cast<int>(slots);
}

} // namespace fat
