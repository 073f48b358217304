// Cluster chains: walking along them, and recognising those that lead back into themselves.

#pragma once

#include "core/table.h"

namespace core {

// Detects a cycle in a chain in time proportional to its length and in constant memory: the anchor
// moves forward at distances that double (Brent).
struct cycle_detector {
    u32 anchor = 0;
    bool has_anchor = false;
    u32 span = 1;  // steps from one anchor to the next
    u32 steps = 1; // since the anchor was set

    // Call with each cluster of the chain in turn, or with `count` clusters of consecutive numbers.
    // True if the chain has reached the anchor again.
    [[nodiscard]] bool closes_cycle(u32 cluster);
    [[nodiscard]] bool closes_cycle_within(u32 first, u32 count);
};

// A position in a cluster chain.
struct chain_cursor {
    u32 first = 0;   // first cluster of the chain; 0: not set
    u32 cluster = 0; // current cluster; after the last link, an end of the chain or FAT_FREE
    u32 links = 0;   // number of links from the first cluster to the current one
    cycle_detector detector;

    // Moves to the cluster `to` links after `start`: forward from the current position where that
    // is on the way. Contiguous clusters are skipped in one step. Faults: those of table::link(),
    // CYCLE; `cluster` is then the one whose link failed or that was met again, and the position is
    // not set.
    [[nodiscard]] fault move(table &fat, u32 start, u32 to);
};

// What a walk along a chain found.
struct chain_length {
    u32 clusters;
    u32 last; // cluster
};

// Counts the clusters from `first` to the end. Faults: those of table::link(), CYCLE, FREE_CLUSTER;
// `stopped_at` receives the cluster whose entry ended the walk.
[[nodiscard]] result<chain_length> measure_chain(table &fat, u32 first, u32 *stopped_at);

} // namespace core
