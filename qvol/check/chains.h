// Chains and the owners of their clusters. Each cluster is claimed once: the time for all chains of
// a volume is limited by its number of clusters, whatever their links are.

#pragma once

#include "qvol/check/survey.h"

namespace qvol {

enum class chain_end {
    MARK,   // an end-of-chain mark: complete
    LIMIT,  // the limit was reached, and the chain continues
    FREE,   // links to a cluster that is marked free
    BAD,    // links to a cluster that is marked bad
    RANGE,  // links to a number that is not a cluster
    CYCLE,  // links to a cluster of the same chain
    SHARED, // links to a cluster of another entry
};

// A chain up to the last cluster that could be claimed.
struct claimed_chain {
    u32 count = 0; // clusters
    u32 last = 0;  // the cluster before `at`; 0: the chain has no cluster
    chain_end end = chain_end::MARK;
    u32 at = 0;         // the link after the last cluster
    u32 past_image = 0; // the first of its clusters past the end of the image; 0: all are in it
};

[[nodiscard]] claimed_chain claim_chain(survey *checked, u32 node, u32 start,
                                        u32 limit = std::numeric_limits<u32>::max());

// Claims the rest of a chain that ended at its limit.
[[nodiscard]] claimed_chain claim_tail(survey *checked, u32 node, const claimed_chain &head);

// Image files may end after their last cluster in use.
[[nodiscard]] bool is_in_image(const survey &checked, u32 cluster);

// The clusters of a claimed chain.
[[nodiscard]] std::vector<u32> claimed_clusters(fat_table *table, u32 start, u32 count);

// The finding for a chain whose end is neither MARK nor LIMIT.
[[nodiscard]] finding broken_chain(survey *checked, u32 node, const claimed_chain &chain);

// Adds the findings of a chain whose clusters are all needed.
void check_whole_chain(survey *checked, u32 node, const claimed_chain &chain);

} // namespace qvol
