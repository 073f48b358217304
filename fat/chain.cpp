// Cluster chains: allocating, clearing, counting, releasing, listing.
//
// Allocation is next-fit: the search continues after `last_alloc_clus` of the volume record and
// wraps around once. A cycle ends every walk like a broken chain.

#include "fat/internal.h"

#include <cerrno>

namespace fat {

namespace {

void correct_hint() {
    sv->last_alloc_clus = core::corrected_hint(here(), sv->last_alloc_clus);
}

void report_failed_write() {
    report_at("fat_alloc_cluster", __LINE__, "Failed to write entry!\n\n");
}

// Reports a full volume. Deferred changes, which single writes would have made before the search,
// are written first.
int fail_full_search(core::table *fat) {
    const int flushed = flush(fat);
    if (flushed < 0) {
        report_failed_write();
        return flushed;
    }
    report_at("fat_alloc_cluster", __LINE__, "No space left on volume!!\n");
    return -ENOSPC;
}

// Stores a free cluster. Intentional: if the second pass fails for another reason than a full
// volume, the result is 0 and `cluster` is not changed.
int find_free_cluster(core::table *fat, u32 *cluster) {
    core::next_fit search{sv->last_alloc_clus};
    const core::result<u32> result = search.find(*fat);
    const int found = report_search(*fat, result, search.stopped_at);
    if (fat->write_failed()) {
        report_failed_write();
        return -EIO;
    }
    if (found == -ENOENT) {
        return fail_full_search(fat);
    }
    if (found < 0 && !search.has_wrapped) {
        return found;
    }
    if (found > 0) {
        *cluster = static_cast<u32>(found);
    }
    return 0;
}

int write_link(core::table *fat, u32 cluster, u32 value) {
    const int result = change(fat, cluster, value);
    if (result < 0) {
        report_failed_write();
    }
    return result;
}

// Makes the cluster the only one of an entry without clusters. The dentry copy changes in memory
// only.
void start_chain(oentry *entry, u32 cluster) {
    entry->last = cluster;
    entry->start = cluster;
    entry->allocated += cluster_bytes();
    if (entry->dentry != nullptr) {
        set_start_cluster(entry->dentry, cluster);
    }
}

// Links the cluster first, then terminates the chain; if terminating fails, the link is undone.
int append_to_chain(core::table *fat, oentry *entry, u32 cluster) {
    int result = write_link(fat, entry->last, cluster);
    if (result < 0) {
        return result;
    }
    result = write_link(fat, cluster, FAT_END_MARK);
    if (result < 0) {
        (void)change(fat, entry->last, FAT_END_MARK); // the first error is the one returned
        return result;
    }
    entry->last = cluster;
    entry->allocated += cluster_bytes();
    return 0;
}

int link_cluster(core::table *fat, oentry *entry, u32 cluster) {
    if (entry != nullptr && (entry->start != 0 || entry->last != 0)) {
        return append_to_chain(fat, entry, cluster);
    }
    const int result = write_link(fat, cluster, FAT_END_MARK);
    if (result == 0 && entry != nullptr) {
        start_chain(entry, cluster);
    }
    return result;
}

// Linking a cluster after what a record takes for the end of its chain changes the chain in the
// middle if another record has extended it: then positions of other records are not valid any more.
void forget_other_positions(oentry *entry) {
    const bool is_before_end = entry != nullptr && entry->kept_epoch == chain_epoch() &&
                               entry->kept_links < entry->allocated / cluster_bytes();
    forget_positions();
    if (is_before_end) {
        entry->kept_epoch = chain_epoch();
    }
}

int alloc_cluster(core::table *fat, oentry *entry, u32 *cluster) {
    forget_other_positions(entry);
    correct_hint();
    const int found = find_free_cluster(fat, cluster);
    if (found < 0) {
        return found;
    }
    const int linked = link_cluster(fat, entry, *cluster);
    if (linked < 0) {
        return linked;
    }
    sv->last_alloc_clus = *cluster;
    return 0;
}

// Allocates the clusters after the last one of the entry, which was allocated before, as long as
// they are free and their FAT entries are in the same sector: what single allocations would do.
u32 alloc_following(core::table *fat, oentry *entry, u32 *clusters, u32 count) {
    u32 cluster = entry->last;
    const u32 found = cluster == sv->last_alloc_clus ? fat->link_following(cluster, count) : 0;
    for (u32 i = 0; i < found; i++) {
        clusters[i] = ++cluster;
    }
    if (found > 0) {
        entry->last = sv->last_alloc_clus = cluster;
    }
    entry->allocated += found * cluster_bytes();
    return found;
}

// State of an entry and the hint before clusters were allocated for the entry.
struct before_allocation {
    u32 start;        // first cluster in the record
    u32 dentry_start; // first cluster in the dentry copy
    u32 hint;
};

before_allocation save_state(const oentry *entry) {
    return {entry->start, entry->dentry != nullptr ? start_cluster(entry->dentry) : 0,
            sv->last_alloc_clus};
}

// If a deferred write failed, the allocations from index `first_lost` on never reached the medium:
// a chain that began with one of them is reset, and the hint becomes the last cluster before them.
void restore_lost(const before_allocation &before, u32 first_lost, const u32 *clusters,
                  oentry *entry) {
    if (first_lost > 0) {
        sv->last_alloc_clus = clusters[first_lost - 1];
        correct_hint(); // the failed allocation began with this
        return;
    }
    sv->last_alloc_clus = before.hint;
    entry->start = before.start;
    if (entry->dentry != nullptr) {
        set_start_cluster(entry->dentry, before.dentry_start);
    }
}

bool is_directory_record(const oentry *record) {
    return is_live_directory(record->dentry) || (record->dentry == nullptr && sv->fat_type == 32);
}

// Updates all other open records of a directory that has grown: a record with the old end would
// link the next cluster into the middle of the chain.
void share_growth(const oentry *grown) {
    for (oentry *record : oentry_table) {
        if (record != nullptr && record != grown && record->start == grown->start &&
            is_directory_record(record)) {
            record->last = grown->last;
            record->allocated = grown->allocated;
        }
    }
}

// Undoes an allocation whose cluster could not be cleared or is not valid. Intentional: the number
// of the freed cluster remains in the hint and, if the entry had no cluster before, in its fields.
void undo_growth(oentry *entry, u32 previous_last, u32 cluster) {
    forget_positions();
    if (previous_last != 0) {
        (void)fat_write_entry(previous_last, FAT_END_MARK); // the caller returns its own error
        entry->last = previous_last;
        entry->allocated -= cluster_bytes();
    }
    if (is_data_cluster(cluster)) {
        (void)fat_write_entry(cluster, FAT_FREE); // the same
    }
}

// One change of an undo. A failure here cannot be repaired; the caller returns the error that led
// here. The failing write may be that of the previous dirty sector: then the change itself is tried
// again.
void undo_entry(core::table *fat, u32 cluster, u32 value) {
    const bool has_pending_changes = fat->has_late_changes();
    if (change(fat, cluster, value) < 0 && has_pending_changes) {
        (void)change(fat, cluster, value);
    }
}

// The link of the current cluster of a walk; negative also if the chain has a cycle.
int read_link(core::table *fat, core::cycle_detector *detector, u32 cluster) {
    return detector->closes_cycle(cluster) ? -EINVAL : follow(fat, cluster);
}

// The same for a release. After the clusters that stay, a cycle ends without detection: at the
// first freed entry.
int read_released_link(core::table *fat, core::cycle_detector *detector, u32 cluster,
                       bool is_kept) {
    return is_kept ? read_link(fat, detector, cluster) : follow(fat, cluster);
}

// Ends a release that failed: deferred changes are written nevertheless. A failed write takes
// precedence, since single writes would have met it first.
int fail_release(core::table *fat, int error) {
    const bool write_failed = flush(fat) < 0 || fat->write_failed();
    report_at("fat_release_clusters", __LINE__, "Failed to read cluster!\n\n");
    return write_failed ? -EIO : error;
}

} // namespace

// ---- allocation -------------------------------------------------------------------------------

int fat_alloc_cluster(oentry *entry, u32 *cluster) {
    core::table fat(here());
    return alloc_cluster(&fat, entry, cluster);
}

int alloc_clusters(oentry *entry, u32 *clusters, u32 count, u32 *allocated) {
    correct_hint();
    const before_allocation before = save_state(entry);
    core::table fat(here(), core::table::writing::LATE);
    int result = 0;
    for (*allocated = 0; *allocated < count && result == 0;) {
        fat.begin_step(*allocated);
        result = alloc_cluster(&fat, entry, &clusters[*allocated]);
        if (result == 0) {
            ++*allocated;
            *allocated += alloc_following(&fat, entry, clusters + *allocated, count - *allocated);
        }
    }
    if (!fat.write_failed() && flush(&fat) < 0 && result == 0) {
        report_failed_write();
        result = -EIO;
    }
    if (fat.write_failed()) {
        restore_lost(before, fat.first_lost_step(), clusters, entry);
    }
    return result;
}

void undo_allocation(oentry *entry, u32 old_last, const u32 *clusters, u32 count, u32 allocated) {
    forget_positions();
    core::table fat(here(), core::table::writing::LATE);
    undo_entry(&fat, old_last, FAT_END_MARK);
    entry->last = old_last;
    entry->allocated -= allocated * cluster_bytes();
    for (u32 i = 0; i < count && clusters[i] >= FIRST_DATA_CLUSTER; i++) {
        undo_entry(&fat, clusters[i], FAT_FREE);
    }
    (void)flush(&fat); // an error here is ignored as in undo_entry()
}

int clear_cluster(u32 cluster) {
    const heap_ptr<u8> zeros = zeroed_bytes(sv->sector_size);
    if (zeros == nullptr) {
        REPORT("Failed to allocate memory!\n\n");
        return -ENOMEM;
    }
    const u32 first = here().sector_of(cluster);
    for (u32 i = 0; i < sv->sec_per_clus; i++) {
        if (write_medium(zeros.get(), first + i, 1) != 1) {
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
    if (result == 0 && !is_data_cluster(new_cluster)) {
        // The search met a damaged entry: clearing this cluster number would hit another area.
        undo_growth(entry, previous_last, new_cluster);
        result = -EINVAL;
    }
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
    core::table fat(here());
    u32 stopped_at = 0;
    const core::result<core::chain_length> length = core::measure_chain(fat, first, &stopped_at);
    if (length.why == core::fault::FREE_CLUSTER) {
        return 0;
    }
    if (!length.ok()) {
        (void)report_link(length.why, stopped_at); // Intentional: whatever the error was
        REPORT("Failed to read cluster!\n\n");
        return -EINVAL;
    }
    *last = length.value.last;
    return static_cast<int>(length.value.clusters);
}

int fat_release_clusters(oentry *entry, u32 keep) {
    forget_positions();
    core::table fat(here(), core::table::writing::LATE);
    core::cycle_detector detector;
    u32 cluster = entry->start;
    for (u32 count = 1;; count++) {
        const int next = read_released_link(&fat, &detector, cluster, count <= keep);
        if (next < 1) {
            return fail_release(&fat, -EINVAL);
        }
        if (count > keep) {
            const int freed = change(&fat, cluster, FAT_FREE);
            if (freed < 0) {
                return fail_release(&fat, freed);
            }
        }
        if (is_end_of_chain(static_cast<u32>(next))) {
            if (flush(&fat) < 0) {
                return fail_release(&fat, -EIO);
            }
            if (cluster != entry->last || count * cluster_bytes() != entry->allocated) {
                REPORT("FAT chain is broken, but truncated all clusters\n");
            }
            return static_cast<int>(count - keep); // negative if `keep` is larger than the chain
        }
        cluster = static_cast<u32>(next);
    }
}

int fat_get_chains(oentry *entry, u32 **array) {
    if (entry->dentry == nullptr && sv->fat_type != 32) {
        REPORT("Invalid arg!\n\n");
        return -EINVAL;
    }
    if (entry->allocated == 0) {
        return 0;
    }
    const u32 slots = entry->allocated / cluster_bytes() + 1;
    *array = nullptr;
    // One more for the terminator of a chain that is longer than its record states.
    heap_ptr<u32> chain = zeroed_records<u32>(slots + 1);
    if (chain == nullptr) {
        REPORT("Memory allocation error!\n\n");
        return -ENOMEM;
    }
    u32 *slot = chain.get();
    slot[0] = entry->start;
    u32 i = 0;
    core::table fat(here());
    while (i < slots) {
        const int next = follow(&fat, slot[i]);
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
