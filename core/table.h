// The FAT: single entries, links, free clusters.
//
// Only the copy at areas::fat_start is read and written; copies that are to be equal are written by
// the caller.

#pragma once

#include "core/window.h"

namespace core {

// Entry `index` of a FAT in memory, which begins at `entry`. The reserved bits of a FAT32 entry,
// and the half byte of its neighbour that a FAT12 entry shares, are not part of its value and do
// not change.
[[nodiscard]] u32 load_entry(u32 width, u32 index, const u8 *entry);
void store_entry(u32 width, u32 index, u8 *entry, u32 value);

// The FAT of a volume, for as long as no one else changes it. Each sector is read once as long
// as a walk stays in it, and several sectors together when it visits the FAT in ascending order.
//
// Changes are written at once or, with writing::LATE, when a change moves to another sector and by
// flush(): each write then takes place after the last change of its sector.
class table {
public:
    enum class writing { AT_ONCE, LATE };

    explicit table(const volume &of, writing when = writing::AT_ONCE) : of_(of), when_(when) {}

    [[nodiscard]] const volume &on() const {
        return of_;
    }

    // The value of entry `index`, without its reserved bits. The index is not checked against the
    // volume. Faults: NO_GEOMETRY, WIDTH, TABLE_MEMORY, TABLE_READ.
    [[nodiscard]] result<u32> value(u32 index);

    // The value of the entry of a data cluster: FAT_FREE, the next cluster, or an end of the chain.
    // Faults: those of value(), CLUSTER_NUMBER, LINK_VALUE; late changes are written before a fault
    // is returned, and TABLE_WRITE takes precedence.
    [[nodiscard]] result<u32> link(u32 cluster);

    // Changes entry `index`; the reserved bits of a FAT32 entry do not change. Faults: those of
    // value(), TABLE_WRITE.
    [[nodiscard]] fault set(u32 index, u32 value);

    // Links free clusters of consecutive numbers after `cluster`, the last one of a chain, as long
    // as their entries are in the sector of its late change. Returns their number, at most `limit`;
    // none on FAT12.
    [[nodiscard]] u32 link_following(u32 cluster, u32 limit);

    // Writes late changes. Returns NONE or TABLE_WRITE.
    [[nodiscard]] fault flush();

    // Number of links from `cluster` on that lead to the next higher cluster number, as far as they
    // are in memory, at most `max_links`; none on FAT12. Reads nothing.
    [[nodiscard]] u32 contiguous_links(u32 cluster, u32 max_links) const;

    // The lowest free cluster from `first` to `last`, both included. Faults: NO_SPACE, or that of
    // the first entry that cannot be read or is not a link; `stopped_at` receives its number.
    [[nodiscard]] result<u32> find_free(u32 first, u32 last, u32 *stopped_at = nullptr);

    // ---- which changes reached the medium ----

    // Numbers the changes that follow, until the next call.
    void begin_step(u32 step) {
        step_ = step;
    }
    [[nodiscard]] bool has_late_changes() const {
        return is_dirty_;
    }
    [[nodiscard]] bool write_failed() const { // at least one write
        return write_failed_;
    }
    // After the first failed write: the step of the first change that it did not write.
    [[nodiscard]] u32 first_lost_step() const {
        return dirty_since_step_;
    }

private:
    [[nodiscard]] fault load_straddling(u32 index, u8 *both); // an entry in two sectors
    [[nodiscard]] fault set_straddling(u32 index, u32 value);
    [[nodiscard]] fault keep_change();
    [[nodiscard]] fault load(sector_window *window, u32 index, u32 *value);
    [[nodiscard]] fault load_link(u32 cluster, u32 *value);
    [[nodiscard]] fault fill(sector_window *window, u64 sector);
    [[nodiscard]] fault select(u64 sector);
    [[nodiscard]] u32 sectors_to_read(u64 sector) const;

    volume of_;
    writing when_;
    bool is_dirty_ = false; // changed_ is not on the medium
    bool write_failed_ = false;
    u32 step_ = 0;
    u32 dirty_since_step_ = 0;
    u32 in_order_ = 0;      // sectors that a walk has visited without a jump
    sector_window changed_; // the one sector being changed
    sector_window clean_;   // sectors that were only read
};

} // namespace core
