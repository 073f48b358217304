#include "qvol/sources/node.h"

namespace qvol {

namespace {

constexpr u32 DOT_SLOTS = 2;

u64 clusters_of_bytes(u64 bytes, u32 cluster_bytes) {
    return (bytes + cluster_bytes - 1) / cluster_bytes;
}

} // namespace

tree_totals totals_of(const std::vector<source_node> &nodes) {
    tree_totals totals;
    for (const source_node &node : nodes) {
        switch (node.type) {
        case kind::DIRECTORY: {
            const tree_totals below = totals_of(node.children);
            totals.files += below.files;
            totals.directories += below.directories + 1;
            totals.links += below.links;
            totals.bytes += below.bytes;
            break;
        }
        case kind::LINK:
            totals.links++;
            break;
        default:
            totals.files++;
            totals.bytes += node.size;
        }
    }
    return totals;
}

u64 slots_needed(const std::vector<source_node> &nodes) {
    u64 slots = 0;
    for (const source_node &node : nodes) {
        slots += node.slots;
    }
    return slots;
}

namespace {

// Visits the size in bytes of every file, link and directory.
template <typename Visit>
void visit_sizes(const std::vector<source_node> &nodes, Visit visit) {
    for (const source_node &node : nodes) {
        if (node.type == kind::DIRECTORY) {
            visit((DOT_SLOTS + slots_needed(node.children)) * core::DENTRY_SIZE);
            visit_sizes(node.children, visit);
        } else {
            visit(node.size);
        }
    }
}

} // namespace

u64 clusters_needed(const std::vector<source_node> &nodes, u32 cluster_bytes) {
    u64 clusters = 0;
    visit_sizes(nodes, [&](u64 bytes) { clusters += clusters_of_bytes(bytes, cluster_bytes); });
    return clusters;
}

cluster_counts::cluster_counts(const std::vector<source_node> &nodes) {
    visit_sizes(nodes, [this](u64 bytes) {
        for (std::size_t i = 0; i < counts_.size(); i++) {
            counts_[i] += clusters_of_bytes(bytes, SMALLEST << i);
        }
    });
}

u64 cluster_counts::of(u32 cluster_bytes) const {
    return counts_.at(static_cast<std::size_t>(std::countr_zero(cluster_bytes / SMALLEST)));
}

} // namespace qvol
