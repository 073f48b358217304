// The FAT of the volume in memory: links, chains, allocation.
//
// Sectors are read from the first copy in use when they are needed. A few MiB stay in memory, more
// only if chains lead back and forth so often that the same ones are read again and again: the time
// for all chains stays linear in the size of the FAT. Changes stay in memory until write_changes(),
// which writes them to every copy in use, as kernels do. A command can therefore do all its
// allocations before anything is written, and drop them.

#pragma once

#include "core/allocator.h"
#include "qvol/error.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace qvol {

using core::u32;
using core::u64;
using core::u8;

// Contiguous clusters.
struct cluster_extent {
    u32 first;
    u32 count;

    bool operator==(const cluster_extent &) const = default;
};

// A copy of the FAT that differs from the first one.
struct copy_difference {
    u32 copy;
    u64 sectors; // number of differing sectors
    u32 cluster; // number of the first differing entry; 0 and 1 do not represent clusters
};

// More clusters were requested than are free.
class no_space : public error {
public:
    using error::error;
};

class fat_table {
public:
    // The FAT of a volume. `copies`: number of copies in use, which hold the same; the first one
    // is at areas::fat_start. Reads nothing yet.
    fat_table(const core::volume &on, u32 copies);

    // The volume, with the clusters that its FAT has an entry for.
    [[nodiscard]] const core::volume &on() const {
        return on_;
    }

    // ---- entries ----

    // The value of the entry of a data cluster, without its reserved bits. Throws error if the
    // volume or its FAT does not have the cluster.
    [[nodiscard]] u32 get(u32 cluster);
    void set(u32 cluster, u32 value);

    // Visits all clusters whose entries are not free, in ascending order. Does not cache the
    // sectors that it reads.
    void visit_used(const std::function<void(u32 cluster, u32 value)> &visit) const;

    [[nodiscard]] u32 last_cluster() const {
        return on_.last_cluster();
    }
    [[nodiscard]] u32 free_count();   // reads the whole FAT the first time
    [[nodiscard]] u32 next_free();    // the lowest free cluster, or FSINFO_UNKNOWN
    [[nodiscard]] u32 highest_used(); // 0: all are free

    // ---- chains ----

    // The clusters of a chain, at most `limit` of them. Throws error if the chain links out of the
    // volume or to a free or bad cluster, or contains a cycle.
    [[nodiscard]] std::vector<u32> chain(u32 start, u32 limit = ~0U);

    // Allocates `count` clusters, the lowest free ones, and links them. `previous`: last cluster of
    // the chain to extend, or 0 to start a new chain. Throws no_space, with nothing allocated, if
    // fewer are free.
    [[nodiscard]] std::vector<u32> allocate(u32 count, u32 previous = 0);

    void release(std::span<const u32> clusters);

    // ---- the medium ----

    // Drops changes that are not written.
    void forget_changes();

    // Writes the changed sectors to every copy, or only to the first after leave_other_copies().
    void write_changes();

    // The copies that differ from the first one.
    [[nodiscard]] std::vector<copy_difference> compare_copies() const;

    // From now on only the first copy is written. mirror() makes the others equal.
    void leave_other_copies() {
        written_copies_ = 1;
    }

    // Writes the first copy over the others. Returns the sectors that differed.
    [[nodiscard]] u64 mirror();

private:
    struct page {
        std::vector<u8> bytes;
        std::vector<bool> is_dirty; // by sector
    };

    [[nodiscard]] page &page_of(u64 byte_offset);
    void make_space();
    [[nodiscard]] page load_page(std::size_t index) const;
    [[nodiscard]] u32 value_in(const page &cached, u32 cluster) const;

    // A sector of a copy that differs from the first one: its location, and the bytes of both.
    struct differing_sector {
        u32 copy;
        u64 index; // from the start of the copy
        std::span<const u8> first;
        std::span<const u8> other;
    };
    void visit_differences(const std::function<void(const differing_sector &)> &visit) const;
    void write_page(std::size_t index, page *changed) const;
    [[nodiscard]] bool page_begins_in_table(std::size_t index) const;
    void check_number(u32 cluster) const;
    [[nodiscard]] u32 find_free();

    core::volume on_;
    u32 copies_;
    u32 written_copies_; // number of copies that are written, from the first on
    std::vector<std::unique_ptr<page>> pages_;
    std::deque<std::size_t> loaded_; // pages in memory, the oldest first; without dirty ones
    std::size_t max_loaded_;
    std::size_t loads_left_; // until twice as many may be in memory
    core::lowest_free search_;
    std::optional<u32> free_count_; // no value: not counted yet
};

// Adds the next cluster of a chain to its extents: contiguous clusters are joined.
void append_cluster(std::vector<cluster_extent> *extents, u32 cluster);

[[nodiscard]] std::vector<cluster_extent> extents_of(std::span<const u32> clusters);

} // namespace qvol
