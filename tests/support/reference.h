// The reference model of the open volume: its areas, and its medium as the disk is.

#pragma once

#include "fat/internal.h"
#include "tests/model/volume.h"
#include "tests/support/ram_disk.h"

namespace testing_support {

inline model::areas areas_of_open_volume() {
    return {.width = sv->fat_type,
            .sector_bytes = sv->sector_size,
            .cluster_sectors = sv->sec_per_clus,
            .clusters = sv->num_clusters,
            .fat_start = sv->fat_start,
            .fat_sectors = sv->fat_size,
            .root_start = sv->rdir_start,
            .data_start = sv->data_start,
            .root_cluster = sv->root_clus,
            .total_sectors = sv->total_sectors};
}

// An open entry in the model. A record does not state that it is the root directory's.
inline model::open_entry open_entry_of(const oentry &record) {
    model::open_entry result;
    result.start = record.start;
    result.last = record.last;
    result.allocated = record.allocated;
    result.position = record.pos;
    result.references = record.ref_count;
    result.where = {record.dentry_sector, record.dentry_offset};
    if (record.dentry != nullptr) {
        result.cached.emplace();
        std::copy_n(record.dentry, result.cached->size(), result.cached->begin());
    }
    return result;
}
// The open entry of an id, in the library and in the model; missing: the id is free.
inline std::optional<model::open_entry> open_entry_of(int id) {
    return oentry_table[id] == nullptr ? std::nullopt
                                       : std::optional(open_entry_of(*oentry_table[id]));
}
inline std::optional<model::open_entry> expected_entry(const model::volume &volume, int id) {
    const auto found = volume.table.find(id);
    if (found == volume.table.end()) {
        return std::nullopt;
    }
    model::open_entry result = found->second;
    result.is_root = false;
    return result;
}

// A layer of the model over the open volume. It starts with the disk's bytes at its last
// remember(), or at the model's first read of them, and with the disk's bad sectors.
template <typename Layer>
Layer reference_of(ram_disk *disk) {
    Layer layer(areas_of_open_volume(), [disk](std::uint64_t offset, std::size_t size) {
        return disk->peek_before(offset, size);
    });
    layer.hint = sv->last_alloc_clus;
    layer.unreadable = disk->unreadable;
    layer.unreadable.insert(disk->bad_sectors.begin(), disk->bad_sectors.end());
    layer.unwritable = disk->unwritable;
    layer.unwritable.insert(disk->bad_sectors.begin(), disk->bad_sectors.end());
    layer.fails_silently = disk->failure_result >= 0;
    return layer;
}

} // namespace testing_support
