// Chains and the owners of their clusters. Each cluster is claimed once: the time for all chains of
// a volume is limited by its number of clusters, whatever their links are.

#pragma once

#include "qvol/check/survey.h"

namespace qvol {

[[nodiscard]] claimed_chain claim_chain(survey *checked, u32 node, u32 start,
                                        u32 limit = std::numeric_limits<u32>::max());

// Claims the rest of a chain that ended at its limit.
[[nodiscard]] claimed_chain claim_tail(survey *checked, u32 node, const claimed_chain &head);

// Gives up the clusters of the last claimed chain after the first `count`, which hold other data.
void shorten_chain(survey *checked, claimed_chain *chain, const std::vector<u32> &clusters,
                   u32 count);

// Image files may end after their last cluster in use.
[[nodiscard]] bool is_in_image(const survey &checked, u32 cluster);

// The clusters of a claimed chain.
[[nodiscard]] std::vector<u32> claimed_clusters(fat_table *table, u32 start, u32 count);

// The finding for a chain whose end is neither MARK nor LIMIT.
[[nodiscard]] finding broken_chain(survey *checked, u32 node, const claimed_chain &chain);

// Adds a finding about a chain that lacks clusters.
void add_incomplete(survey *checked, finding about, const claimed_chain &chain, u32 missing);

// Adds the findings of a chain whose clusters are all needed, `wanted` of them; a directory: 0.
void check_whole_chain(survey *checked, u32 node, const claimed_chain &chain, u32 wanted);

} // namespace qvol
