// The FAT of the volume in memory: links, chains, allocation.
//
// Sectors are read when they are first needed, from the first copy, and changes stay in memory
// until write_changes(), which writes them to every copy, as kernels do. So a command can go
// through all its allocations before anything reaches the medium, and drop them.

#pragma once

#include "fat/bytes.h"
#include "qvol/error.h"

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace qvol {

using fat::u32;
using fat::u64;
using fat::u8;

// Clusters that follow one another on the medium.
struct cluster_extent {
    u32 first;
    u32 count;

    bool operator==(const cluster_extent &) const = default;
};

// A copy of the FAT that is not equal to the first one.
struct copy_difference {
    u32 copy;
    u64 sectors; // how many differ
    u32 cluster; // that of the first entry which differs; 0 and 1 are none
};

// There are not as many free clusters as are wanted.
class no_space : public error {
public:
    using error::error;
};

class fat_table {
public:
    // Of the mounted volume, which has `copies` FATs. Reads nothing yet.
    explicit fat_table(u32 copies);

    // ---- entries ----

    // The value of a data cluster's entry, without its reserved bits. Throws error for a cluster
    // that the volume or its FAT does not have.
    [[nodiscard]] u32 get(u32 cluster);
    void set(u32 cluster, u32 value);

    // All clusters whose entries are not free, in their order. What has to be read for it is not
    // kept.
    void visit_used(const std::function<void(u32 cluster, u32 value)> &visit) const;

    [[nodiscard]] u32 last_cluster() const {
        return last_cluster_;
    }
    [[nodiscard]] u32 free_count();   // reads the whole FAT the first time
    [[nodiscard]] u32 next_free();    // the lowest free cluster; FSINFO_UNKNOWN where there is none
    [[nodiscard]] u32 highest_used(); // 0: none

    // ---- chains ----

    // The clusters of a chain, at most `limit` of them. Throws error where the chain leaves the
    // volume, meets a free or bad cluster, or runs in a circle.
    [[nodiscard]] std::vector<u32> chain(u32 start, u32 limit = ~0U);

    // Allocates `count` clusters behind each other as far as possible, and links them; `previous`,
    // where it is none 0, is the end of the chain that they continue. Throws no_space, with nothing
    // allocated, where there are not as many.
    [[nodiscard]] std::vector<u32> allocate(u32 count, u32 previous = 0);

    void release(std::span<const u32> clusters);

    // ---- the medium ----

    // Drops what was changed and not written.
    void forget_changes();

    // Writes the changed sectors to every copy, or to the first alone where the others are left.
    void write_changes();

    // How each copy that differs from the first one does.
    [[nodiscard]] std::vector<copy_difference> compare_fat_copies() const;

    // From now on only the first copy is written. mirror() makes the others equal.
    void leave_other_copies() {
        written_copies_ = 1;
    }

    // Writes the first copy over the others. Returns the sectors that differed.
    [[nodiscard]] u64 mirror();

    // A call of the library changes the first copy alone. Between read_all() and
    // take_over_library_changes() it may; write_changes() then brings the others up to date.
    // Nothing else may have been changed.
    void read_all();
    void take_over_library_changes();

private:
    struct page {
        std::vector<u8> bytes;
        std::vector<bool> is_dirty; // by sector
    };

    [[nodiscard]] page &page_of(u64 byte_offset);
    [[nodiscard]] static page load_page(std::size_t index);
    [[nodiscard]] u32 value_in(const page &held, u64 byte_offset) const;

    // A sector of a copy that differs: its place, and the bytes of both.
    struct differing_sector {
        u32 copy;
        u64 in_fat; // from the start of the copy
        std::span<const u8> first;
        std::span<const u8> other;
    };
    void visit_differences(const std::function<void(const differing_sector &)> &visit) const;
    void write_page(std::size_t index, page *changed) const;
    [[nodiscard]] bool page_begins_in_table(std::size_t index) const;
    void check_number(u32 cluster) const;
    [[nodiscard]] u32 find_free();

    u32 copies_;
    u32 written_copies_; // the first ones
    u32 entry_size_;
    u32 last_cluster_;
    std::vector<std::unique_ptr<page>> pages_;
    u32 cursor_;                    // where the search for a free cluster goes on
    std::optional<u32> free_count_; // nothing: not counted yet
};

// Neighbouring clusters of a chain put together.
[[nodiscard]] std::vector<cluster_extent> extents_of(std::span<const u32> clusters);

} // namespace qvol
