// Which free cluster is allocated next.

#pragma once

#include "core/table.h"

namespace core {

// Next-fit: the search continues after the cluster allocated last and wraps around once, so that a
// flash is used evenly.

// A hint outside the volume restarts the search at the beginning. Intentional: so does the very
// last cluster.
[[nodiscard]] u32 corrected_hint(const volume &of, u32 hint);

struct next_fit {
    u32 hint;                 // the cluster allocated last, corrected
    bool has_wrapped = false; // the first free cluster is not after the hint
    u32 stopped_at = 0;       // the cluster whose entry ended the search

    // Faults: those of table::find_free().
    [[nodiscard]] result<u32> find(table &fat);
};

// The lowest free cluster, over a FAT whose changes are reported.
class lowest_free {
public:
    void freed(u32 cluster) {
        from_ = cluster < from_ ? cluster : from_;
    }

    // The lowest of the clusters up to `last` for which `is_free(cluster)` is true, or 0.
    template <typename Free>
    [[nodiscard]] u32 find(u32 last, Free is_free) {
        while (from_ <= last && !is_free(from_)) {
            from_++;
        }
        return from_ <= last ? from_ : 0;
    }

private:
    u32 from_ = FIRST_DATA_CLUSTER; // no cluster below it is free
};

} // namespace core
