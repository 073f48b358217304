// Chains and whose their clusters are. Each cluster is claimed once: all chains of a volume
// together take no longer than it has clusters, whatever their links say.

#pragma once

#include "qvol/check/survey.h"

namespace qvol {

enum class chain_end {
    MARK,   // as it should
    LIMIT,  // as many clusters as were asked for, and more behind them
    FREE,   // a cluster that is marked free
    BAD,    // one that is marked bad
    RANGE,  // a number that is no cluster's
    CIRCLE, // one of the same chain
    SHARED, // one of another entry
};

// A chain as far as its clusters are its own.
struct claimed_chain {
    u32 count = 0; // clusters
    u32 last = 0;  // the cluster in front of `at`; 0: the entry leads there
    chain_end end = chain_end::MARK;
    u32 at = 0;     // the cluster, or number, that it ends in front of
    u32 behind = 0; // the first of its clusters that the image does not have; 0: none
};

[[nodiscard]] claimed_chain claim_chain(survey *in, u32 node, u32 start,
                                        u32 limit = std::numeric_limits<u32>::max());

// What follows a chain that ended with its limit.
[[nodiscard]] claimed_chain claim_tail(survey *in, u32 node, const claimed_chain &of);

// Images may be cut behind their last cluster in use.
[[nodiscard]] bool is_in_image(u32 cluster);

// The clusters of a chain that was claimed.
[[nodiscard]] std::vector<u32> claimed_clusters(fat_table *table, u32 start, u32 count);

// The finding for the end of a chain that is neither a mark nor a limit.
[[nodiscard]] finding broken_chain(survey *in, u32 node, const claimed_chain &chain);

// Adds what is wrong with a chain all of whose clusters are needed.
void check_whole_chain(survey *in, u32 node, const claimed_chain &chain);

} // namespace qvol
