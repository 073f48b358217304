#include "qvol/check/chains.h"

#include "qvol/check/repair.h"
#include "qvol/check/reserved_files.h"
#include "qvol/file_data.h"
#include "qvol/output.h"
#include "qvol/sectors.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

// Why a chain cannot continue in a cluster; MARK if it can.
chain_end obstacle_at(survey *checked, u32 cluster) {
    if (!checked->table.on().is_data_cluster(cluster)) {
        return chain_end::RANGE;
    }
    if (checked->owners.is_owned(cluster)) {
        return chain_end::SHARED;
    }
    const u32 value = checked->table.get(cluster);
    return value == core::FAT_FREE             ? chain_end::FREE
           : value == checked->on().bad_mark() ? chain_end::BAD
                                               : chain_end::MARK;
}

void claim_cluster(survey *checked, u32 cluster, claimed_chain *chain) {
    checked->owners.claim(cluster);
    checked->used_clusters++;
    chain->count++;
    chain->last = cluster;
    if (chain->past_image == 0 && !is_in_image(*checked, cluster)) {
        chain->past_image = cluster;
    }
}

// ---- findings ----

finding shared_chain(survey *checked, u32 node, const claimed_chain &chain) {
    const u32 owner = checked->owners.owner_of(chain.at);
    checked->nodes[owner].is_shared = true;
    finding about{&found::CHAIN_SHARED, node, chain.at,
                  fmt::format("also belongs to {}", shown_path(*checked, owner)), ""};
    about.other = owner;
    return about;
}

finding unlinked_chain(u32 node, const claimed_chain &chain) {
    if (chain.last == 0) {
        return {&found::CHAIN_START, node, 0,
                fmt::format("first cluster is {:#x}, which does not exist", chain.at), ""};
    }
    return {&found::CHAIN_RANGE, node, chain.last,
            fmt::format("links to {:#x}, which does not exist", chain.at), ""};
}

// ---- files ----

// A file whose chain continues after the clusters that its size needs.
struct file_tail {
    u32 node;
    claimed_chain needed;
};

std::string length_text(u32 count, u32 wanted, u32 file_size) {
    return fmt::format("the chain has {}, should have {} for {}",
                       counted(count, "cluster", "clusters"), wanted,
                       counted(file_size, "byte", "bytes"));
}

void check_length(survey *checked, u32 node, const claimed_chain &chain) {
    const u32 wanted = clusters_for(checked->on(), checked->nodes[node].dentry.size());
    if (chain.end == chain_end::MARK && chain.count < wanted) {
        add_incomplete(checked,
                       {&found::CHAIN_SHORT, node, checked->nodes[node].dentry.start(),
                        length_text(chain.count, wanted, checked->nodes[node].dentry.size()), ""},
                       chain, wanted - chain.count);
    }
}

// The clusters that the files need are claimed first, for all files: surplus clusters of one file
// then take nothing from another.
void check_needed(survey *checked, u32 node, std::vector<file_tail> *tails) {
    const entry file = checked->nodes[node].dentry;
    const u32 wanted = clusters_for(checked->on(), file.size());
    if (file.start() == 0) {
        if (wanted != 0) {
            add_incomplete(checked,
                           {&found::CHAIN_MISSING, node, 0,
                            fmt::format("the file of {} bytes has no cluster", file.size()), ""},
                           {}, wanted);
        }
        return;
    }
    const claimed_chain chain = is_pool(*checked, node)
                                    ? claim_chain(checked, node, file.start())
                                    : claim_chain(checked, node, file.start(), wanted);
    if (chain.end == chain_end::LIMIT) {
        tails->push_back({node, chain});
    }
    check_whole_chain(checked, node, chain, wanted);
    check_length(checked, node, chain);
}

// Ends the chain after the clusters that the file needs. Its own clusters after them may be what a
// damaged size conceals: they are lost clusters then.
std::function<void(repair_plan *)> cut_to_size(const tree_node &file, const claimed_chain &needed,
                                               const claimed_chain &tail, bool frees) {
    return [location = file.location, needed, tail, frees](repair_plan *plan) {
        if (tail.count != 0) {
            frees ? plan->release_chain(needed.at, tail.count)
                  : plan->keep_chain(needed.at, tail.count);
        }
        if (needed.count == 0) {
            plan->clear_start(location);
        } else {
            plan->end_chain(needed.last);
        }
    };
}

void check_tail(survey *checked, const file_tail &file) {
    const claimed_chain tail = claim_tail(checked, file.node, file.needed);
    finding found = tail.end == chain_end::MARK
                        ? finding{&found::CHAIN_LONG, file.node, file.needed.at,
                                  length_text(file.needed.count + tail.count, file.needed.count,
                                              checked->nodes[file.node].dentry.size()),
                                  ""}
                        : broken_chain(checked, file.node, tail);
    found.remedy = checked->frees_lost || tail.count == 0
                       ? "chain cut to the file size"
                       : "chain cut to the file size, the rest stored in a FOUND directory";
    found.repair = cut_to_size(checked->nodes[file.node], file.needed, tail, checked->frees_lost);
    found.is_disputable = true;
    found.waits = true;
    checked->add(std::move(found));
}

} // namespace

// ---- owners -----------------------------------------------------------------------------------

void cluster_owners::claim(u32 cluster) {
    const std::size_t page = cluster / PAGE_CLUSTERS;
    owned_.resize(std::max(owned_.size(), page + 1));
    if (owned_[page] == nullptr) {
        owned_[page] = std::make_unique<std::bitset<PAGE_CLUSTERS>>();
    }
    owned_[page]->set(cluster % PAGE_CLUSTERS);
    chains_.back().count++;
    if (owners_) {
        owners_->set(cluster, chains_.back().node + 1);
    }
}

void cluster_owners::shorten_chain(u32 count) {
    owned_chain &chain = chains_.back();
    u32 cluster = chain.start;
    for (u32 done = 0; done < chain.count; done++) {
        cluster = done == 0 ? chain.start : table_.get(cluster);
        if (done >= count) {
            owned_[cluster / PAGE_CLUSTERS]->reset(cluster % PAGE_CLUSTERS);
        }
    }
    chain.count = count;
}

// Reads no FAT entry that was not read for the chain.
void cluster_owners::map_owner(const owned_chain &chain) {
    u32 cluster = chain.start;
    for (u32 done = 0; done < chain.count; done++) {
        cluster = done == 0 ? chain.start : table_.get(cluster);
        owners_->set(cluster, chain.node + 1);
    }
}

u32 cluster_owners::owner_of(u32 cluster) {
    if (!owners_) {
        owners_.emplace();
        for (const owned_chain &chain : chains_) {
            map_owner(chain);
        }
    }
    return owners_->get(cluster) - 1;
}

bool cluster_owners::has_chain(u32 node, u32 start) const {
    return std::any_of(chains_.begin(), chains_.end(), [&](const owned_chain &chain) {
        return chain.node == node && chain.start == start && chain.count != 0;
    });
}

// ---- chains -----------------------------------------------------------------------------------

bool is_in_image(const survey &checked, u32 cluster) {
    const core::volume &on = checked.on();
    return (u64{on.sector_of(cluster)} + on.at.sectors_per_cluster) * on.at.sector_size <=
           checked.image_bytes;
}

namespace {

// Claims clusters from `chain->at` on. Returns what ends the chain.
chain_end claim_clusters(survey *checked, u32 limit, claimed_chain *chain) {
    while (chain->count < limit) {
        const chain_end obstacle = obstacle_at(checked, chain->at);
        if (obstacle != chain_end::MARK) {
            return obstacle;
        }
        claim_cluster(checked, chain->at, chain);
        chain->at = checked->table.get(chain->last);
        if (checked->on().is_end_of_chain(chain->at)) {
            return chain_end::MARK;
        }
    }
    return chain_end::LIMIT;
}

void extend_chain(survey *checked, u32 node, u32 limit, claimed_chain *chain) {
    checked->owners.begin_chain(node, chain->at);
    chain->end = claim_clusters(checked, limit, chain);
    if (chain->end == chain_end::SHARED && checked->owners.owner_of(chain->at) == node) {
        chain->end = chain_end::CYCLE;
    }
}

} // namespace

claimed_chain claim_chain(survey *checked, u32 node, u32 start, u32 limit) {
    claimed_chain chain;
    chain.at = start;
    extend_chain(checked, node, limit, &chain);
    return chain;
}

claimed_chain claim_tail(survey *checked, u32 node, const claimed_chain &head) {
    claimed_chain chain;
    chain.last = head.last;
    chain.at = head.at;
    extend_chain(checked, node, std::numeric_limits<u32>::max(), &chain);
    return chain;
}

void shorten_chain(survey *checked, claimed_chain *chain, const std::vector<u32> &clusters,
                   u32 count) {
    checked->owners.shorten_chain(count);
    checked->used_clusters -= chain->count - count;
    chain->count = count;
    chain->last = count == 0 ? 0 : clusters.at(count - 1);
    chain->at = clusters.at(count);
    chain->end = chain_end::OTHER;
    chain->past_image = 0;
}

std::vector<u32> claimed_clusters(fat_table *table, u32 start, u32 count) {
    std::vector<u32> clusters;
    for (u32 cluster = start; clusters.size() < count; cluster = table->get(cluster)) {
        clusters.push_back(cluster);
    }
    return clusters;
}

finding broken_chain(survey *checked, u32 node, const claimed_chain &chain) {
    switch (chain.end) {
    case chain_end::FREE:
        return {&found::CHAIN_FREE, node, chain.at, "marked free, but part of the chain", ""};
    case chain_end::BAD:
        return {&found::CHAIN_BAD, node, chain.at, "marked bad, but part of the chain", ""};
    case chain_end::CYCLE:
        return {&found::CHAIN_CYCLE, node, chain.last,
                fmt::format("links back to cluster {} of the same chain", chain.at), ""};
    case chain_end::SHARED:
        return shared_chain(checked, node, chain);
    case chain_end::OTHER:
        return {&found::NOT_DIRECTORY, node, chain.at, "the cluster holds no directory", ""};
    default:
        return unlinked_chain(node, chain);
    }
}

void add_incomplete(survey *checked, finding about, const claimed_chain &chain, u32 missing) {
    checked->incomplete.push_back({checked->findings.size(), about.node, chain, missing});
    checked->add(std::move(about));
}

void check_whole_chain(survey *checked, u32 node, const claimed_chain &chain, u32 wanted) {
    if (chain.past_image != 0) {
        checked->add({&found::PAST_IMAGE, node, chain.past_image, "past the end of the image", ""});
    }
    if (chain.end != chain_end::MARK && chain.end != chain_end::LIMIT) {
        add_incomplete(checked, broken_chain(checked, node, chain), chain,
                       wanted - std::min(wanted, chain.count));
    }
}

// ---- files ------------------------------------------------------------------------------------

void check_files(survey *checked) {
    std::vector<file_tail> tails;
    for (u32 node = ROOT_NODE + 1; node < checked->nodes.size(); node++) {
        if (!checked->nodes[node].dentry.is_directory()) {
            check_needed(checked, node, &tails);
        }
    }
    for (const file_tail &tail : tails) {
        check_tail(checked, tail);
    }
}

} // namespace qvol
