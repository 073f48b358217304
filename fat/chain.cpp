// Cluster chains: allocating, clearing, counting, releasing, listing.
//
// Allocation is next-fit: the search goes on behind `last_alloc_clus` of the volume record and
// wraps around once. Every walk ends on a chain that runs in a circle as on one that is broken.

#include "fat/internal.h"

#include <cerrno>

namespace fat {

namespace {

// A hint outside the volume, its very last cluster included, restarts the search at the beginning.
void correct_hint() {
    if (sv->last_alloc_clus < FIRST_DATA_CLUSTER || sv->last_alloc_clus > sv->num_clusters) {
        sv->last_alloc_clus = FIRST_DATA_CLUSTER - 1;
    }
}

void report_failed_write() {
    report_at("fat_alloc_cluster", __LINE__, "Failed to write entry!\n\n");
}

// The volume is full. Changes that single writes would have made before the search come first.
int end_full_search(fat_editor *editor) {
    const int flushed = flush_editor(editor);
    if (flushed < 0) {
        report_failed_write();
        return flushed;
    }
    report_at("fat_alloc_cluster", __LINE__, "No space left on volume!!\n");
    return -ENOSPC;
}

// Stores a free cluster. An error of the second pass other than a full volume is passed over, and
// what `cluster` held before is used; this leniency is meant.
int find_free_cluster(fat_editor *editor, u32 *cluster) {
    int found = find_free(editor, sv->last_alloc_clus + 1, sv->num_clusters + 1);
    const bool is_first_pass = found != -ENOENT;
    if (!is_first_pass) {
        found = find_free(editor, FIRST_DATA_CLUSTER, sv->last_alloc_clus);
    }
    if (editor->write_failed) {
        report_failed_write();
        return -EIO;
    }
    if (!is_first_pass && found == -ENOENT) {
        return end_full_search(editor);
    }
    if (is_first_pass && found < 0) {
        return found;
    }
    if (found > 0) {
        *cluster = static_cast<u32>(found);
    }
    return 0;
}

int write_link(fat_editor *editor, u32 cluster, u32 value) {
    const int result = edit_entry(editor, cluster, value);
    if (result < 0) {
        report_failed_write();
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
int append_to_chain(fat_editor *editor, oentry *entry, u32 cluster) {
    int result = write_link(editor, entry->last, cluster);
    if (result < 0) {
        return result;
    }
    result = write_link(editor, cluster, FAT_END_MARK);
    if (result < 0) {
        (void)edit_entry(editor, entry->last, FAT_END_MARK); // the first error is the one to tell
        return result;
    }
    entry->last = cluster;
    entry->allocated += cluster_bytes();
    return 0;
}

int link_cluster(fat_editor *editor, oentry *entry, u32 cluster) {
    if (entry != nullptr && (entry->start != 0 || entry->last != 0)) {
        return append_to_chain(editor, entry, cluster);
    }
    const int result = write_link(editor, cluster, FAT_END_MARK);
    if (result == 0 && entry != nullptr) {
        start_chain(entry, cluster);
    }
    return result;
}

int alloc_cluster(fat_editor *editor, oentry *entry, u32 *cluster) {
    correct_hint();
    const int found = find_free_cluster(editor, cluster);
    if (found < 0) {
        return found;
    }
    const int linked = link_cluster(editor, entry, *cluster);
    if (linked < 0) {
        return linked;
    }
    sv->last_alloc_clus = *cluster;
    return 0;
}

// What an entry and the hint were before clusters were allocated for it.
struct before_allocation {
    u32 start;       // of the entry
    u32 image_start; // in the entry's image
    u32 hint;
};

before_allocation remember(const oentry *entry) {
    return {entry->start, entry->dentry != nullptr ? start_cluster(entry->dentry) : 0,
            sv->last_alloc_clus};
}

// Where the gathered changes of a sector could not be written, the allocations from `first_lost` on
// never happened: a chain that began among them has not begun, and the hint is the one before them.
void forget_lost(const before_allocation &before, u32 first_lost, const u32 *clusters,
                 oentry *entry) {
    if (first_lost > 0) {
        sv->last_alloc_clus = clusters[first_lost - 1];
        correct_hint(); // as the allocation that failed did first
        return;
    }
    sv->last_alloc_clus = before.hint;
    entry->start = before.start;
    if (entry->dentry != nullptr) {
        set_start_cluster(entry->dentry, before.image_start);
    }
}

bool is_directory_record(const oentry *record) {
    return is_live_directory(record->dentry) || (record->dentry == nullptr && sv->fat_type == 32);
}

// Every open record of a directory that has grown learns its new end: a record that kept the old
// one would link the next cluster into the middle of the chain.
void share_growth(const oentry *grown) {
    for (oentry *record : oentry_table) {
        if (record != nullptr && record != grown && record->start == grown->start &&
            is_directory_record(record)) {
            record->last = grown->last;
            record->allocated = grown->allocated;
        }
    }
}

// Takes the new cluster back after it could not be cleared, or was none. Where the entry had no
// cluster before, its fields keep the number of the freed one; the hint keeps it in every case.
void undo_growth(oentry *entry, u32 previous_last, u32 cluster) {
    if (previous_last != 0) {
        (void)fat_write_entry(previous_last, FAT_END_MARK); // the clearing error is the one to tell
        entry->last = previous_last;
        entry->allocated -= cluster_bytes();
    }
    if (is_data_cluster(cluster)) {
        (void)fat_write_entry(cluster, FAT_FREE); // likewise
    }
}

// One change of an undo. Nothing that fails here could be mended; the error that led here is the
// one to tell. What fails first may be the write of the sector that the editor leaves: the change
// itself is then still to be made.
void undo_entry(fat_editor *editor, u32 cluster, u32 value) {
    const bool leaves_changes = editor->dirty;
    if (edit_entry(editor, cluster, value) < 0 && leaves_changes) {
        (void)edit_entry(editor, cluster, value);
    }
}

// The link of the cluster that a walk stands on; negative also where the chain has come back on
// itself.
int read_link(fat_editor *editor, circle_guard *guard, u32 cluster) {
    return guard->closes_at(cluster) ? -EINVAL : follow_link(editor, cluster);
}

// The same for a release. Behind what is kept a circle ends by itself, at the first entry freed.
int read_released_link(fat_editor *editor, circle_guard *guard, u32 cluster, bool is_kept) {
    return is_kept ? read_link(editor, guard, cluster) : follow_link(editor, cluster);
}

// Ends a release that failed: what was gathered is written all the same. A failed write takes
// precedence, since single writes would have met it first.
int fail_release(fat_editor *editor, int error) {
    const bool write_failed = flush_editor(editor) < 0 || editor->write_failed;
    report_at("fat_release_clusters", __LINE__, "Failed to read cluster!\n\n");
    return write_failed ? -EIO : error;
}

} // namespace

// ---- allocation -------------------------------------------------------------------------------

int fat_alloc_cluster(oentry *entry, u32 *cluster) {
    fat_editor editor;
    return alloc_cluster(&editor, entry, cluster);
}

int alloc_clusters(oentry *entry, u32 *clusters, u32 count, u32 *allocated) {
    correct_hint();
    const before_allocation before = remember(entry);
    fat_editor editor;
    editor.gathers = true;
    int result = 0;
    for (*allocated = 0; *allocated < count && result == 0;) {
        editor.step = *allocated;
        result = alloc_cluster(&editor, entry, &clusters[*allocated]);
        *allocated += result == 0 ? 1 : 0;
    }
    if (!editor.write_failed && flush_editor(&editor) < 0 && result == 0) {
        report_failed_write();
        result = -EIO;
    }
    if (editor.write_failed) {
        forget_lost(before, editor.dirty_since, clusters, entry);
    }
    return result;
}

void undo_allocation(oentry *entry, u32 old_last, const u32 *clusters, u32 count, u32 allocated) {
    fat_editor editor;
    editor.gathers = true;
    undo_entry(&editor, old_last, FAT_END_MARK);
    entry->last = old_last;
    entry->allocated -= allocated * cluster_bytes();
    for (u32 i = 0; i < count && clusters[i] >= FIRST_DATA_CLUSTER; i++) {
        undo_entry(&editor, clusters[i], FAT_FREE);
    }
    (void)flush_editor(&editor); // as undo_entry()
}

int clear_cluster(u32 cluster) {
    const heap_ptr<u8> zeros = zeroed_bytes(sv->sector_size);
    if (zeros == nullptr) {
        REPORT("Failed to allocate memory!\n\n");
        return -ENOMEM;
    }
    const u32 first = sv->data_start + (cluster - FIRST_DATA_CLUSTER) * sv->sec_per_clus;
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
    if (result == 0 && !is_data_cluster(new_cluster)) {
        // A search that met a damaged entry found nothing. Clearing that would hit other areas.
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
    fat_editor editor;
    circle_guard guard;
    u32 cluster = first;
    for (int count = 1;; count++) {
        const int next = read_link(&editor, &guard, cluster);
        if (next < 0) {
            REPORT("Failed to read cluster!\n\n");
            return -EINVAL;
        }
        if (next == 0) {
            return 0;
        }
        if (is_end_of_chain(static_cast<u32>(next))) {
            *last = cluster;
            return count;
        }
        cluster = static_cast<u32>(next);
    }
}

int fat_release_clusters(oentry *entry, u32 keep) {
    fat_editor editor;
    editor.gathers = true;
    circle_guard guard;
    u32 cluster = entry->start;
    for (u32 count = 1;; count++) {
        const int next = read_released_link(&editor, &guard, cluster, count <= keep);
        if (next < 1) {
            return fail_release(&editor, -EINVAL);
        }
        if (count > keep) {
            const int freed = edit_entry(&editor, cluster, FAT_FREE);
            if (freed < 0) {
                return fail_release(&editor, freed);
            }
        }
        if (is_end_of_chain(static_cast<u32>(next))) {
            if (flush_editor(&editor) < 0) {
                return fail_release(&editor, -EIO);
            }
            if (cluster != entry->last || count * cluster_bytes() != entry->allocated) {
                REPORT("FAT chain is broken, but truncated all clusters\n");
            }
            return static_cast<int>(count - keep); // negative where more were to be kept
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
    // One to spare: a chain that is longer than its record says still gets its terminator.
    heap_ptr<u32> chain = zeroed_records<u32>(slots + 1);
    if (chain == nullptr) {
        REPORT("Memory allocation error!\n\n");
        return -ENOMEM;
    }
    u32 *slot = chain.get();
    slot[0] = entry->start;
    u32 i = 0;
    sector_window fat;
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
