// Which clusters removed files may have had: their chains are gone, their first clusters and sizes
// are still in their entries.

#pragma once

#include "qvol/fat_table.h"

#include <limits>
#include <vector>

namespace qvol {

// How likely the content is the right one, from the best on.
enum class confidence {
    WHOLE,     // contiguous free clusters that no other removed entry claims
    PIECED,    // in pieces: the free clusters after the first, in ascending order
    CONTESTED, // another removed entry claims some of the clusters as well
    GONE,      // the first cluster is in use, or too few free clusters follow
};

inline constexpr std::size_t NO_CLAIM = std::numeric_limits<std::size_t>::max();

// The clusters of removed entries with the same first cluster and the same size.
struct cluster_claim {
    u32 start;
    u32 count;
    confidence level = confidence::GONE;
    std::vector<cluster_extent> extents{}; // empty if they are gone
    std::size_t rival = NO_CLAIM;          // index of another claim, if contested
    bool is_examined = true;               // not if the claims are made to take long
};

// Settles all claims, which are in the order of their starts. `free`: all free extents in ascending
// order.
void settle_claims(const std::vector<cluster_extent> &free, std::vector<cluster_claim> *claims);

} // namespace qvol
