// How chains that lack clusters are repaired: completed where the FAT copies or the lost clusters
// show how they continue, else ended where they are still good. Clusters of another entry are
// copied.

#include "qvol/check/chains.h"
#include "qvol/check/fat_copy.h"
#include "qvol/check/found_files.h"
#include "qvol/check/repair.h"
#include "qvol/file_data.h"
#include "qvol/output.h"

#include <algorithm>
#include <map>

#include <fmt/core.h>

namespace qvol {

namespace {

// Links that complete a chain: from its last cluster on, with the value of its last entry.
// Cluster 0 stands for the directory entry.
using chain_links = std::vector<std::pair<u32, u32>>; // cluster, value

class chain_mender {
public:
    explicit chain_mender(survey *checked) : checked_(checked) {
        for (const lost_chain &lost : checked->lost) {
            if (!parent_of(checked->on(), lost.head)) {
                lost_by_count_[lost.count].push_back(lost.head);
                lost_counts_.emplace(lost.head, lost.count);
            }
        }
        for (const incomplete_chain &one : checked->incomplete) {
            wanting_[one.missing]++;
        }
        copies_differ_ =
            std::any_of(checked->findings.begin(), checked->findings.end(),
                        [](const finding &one) { return one.kind == &found::FAT_COPIES; });
    }

    void run() {
        for (const incomplete_chain &one : checked_->incomplete) {
            finding &about = checked_->findings[one.finding];
            about.is_disputable = true;
            checked_->nodes[one.node].dentry.is_directory() || one.node == ROOT_NODE
                ? mend_directory(one, &about)
                : mend_file(one, &about);
        }
    }

private:
    [[nodiscard]] const tree_node &node_of(const incomplete_chain &one) const {
        return checked_->nodes[one.node];
    }

    // ---- files ----

    void mend_file(const incomplete_chain &one, finding *about) {
        if (one.missing == 0 || (!complete_from_copies(one, about) &&
                                 !complete_with_next(one, about) && !continue_owner(one, about) &&
                                 !complete_with_only(one, about) && !copy_shared(one, about))) {
            cut(one, about);
        }
    }

    // The lost chain that directly follows the last cluster, if it has the missing length.
    bool complete_with_next(const incomplete_chain &one, finding *about) {
        return take_next_lost(one.claimed.last, one.missing) &&
               complete_with(one, one.claimed.last + 1, about);
    }

    // The only lost chain of the missing length, if nothing else lacks as many clusters.
    bool complete_with_only(const incomplete_chain &one, finding *about) {
        const std::vector<u32> &heads = lost_by_count_[one.missing];
        return heads.size() == 1 && wanting_[one.missing] == 1 &&
               lost_counts_.erase(heads.front()) == 1 && complete_with(one, heads.front(), about);
    }

    bool complete_with(const incomplete_chain &one, u32 head, finding *about) {
        set_links(one, {{one.claimed.last, head}}, about,
                  fmt::format("completed with the lost chain at cluster {}", head));
        return true;
    }

    // False if no lost chain of that length begins after the cluster.
    bool take_next_lost(u32 last, u32 count) {
        const auto next = lost_counts_.find(last + 1);
        const bool fits = last != 0 && next != lost_counts_.end() && next->second == count;
        if (fits) {
            lost_counts_.erase(next);
        }
        return fits;
    }

    // Another copy of the FAT leads on to the end of the file, through clusters without an owner.
    bool complete_from_copies(const incomplete_chain &one, finding *about) {
        if (!copies_differ_) {
            return false;
        }
        for (u32 copy = 1; copy < checked_->vol.boot().copies_in_use(); copy++) {
            const chain_links links = links_in_copy(copy, one);
            if (!links.empty()) {
                set_links(one, links, about, fmt::format("completed from FAT copy {}", copy));
                return true;
            }
        }
        return false;
    }

    // Empty if the copy does not complete the chain.
    chain_links links_in_copy(u32 copy, const incomplete_chain &one) {
        fat_copy other(checked_->on(), copy);
        chain_links links;
        u32 cluster = one.claimed.last;
        for (u32 left = one.missing; left > 0; left--) {
            const u32 next = cluster == 0 ? one.claimed.at : other.get(cluster);
            if (!is_unowned(next)) {
                return {};
            }
            links.emplace_back(cluster, next);
            cluster = next;
        }
        const u32 value = other.get(cluster);
        if (!checked_->on().is_end_of_chain(value)) {
            return {};
        }
        links.emplace_back(cluster, value);
        for (const auto &[taken, link] : links) {
            taken_.set(taken, 1);
        }
        return links;
    }

    [[nodiscard]] bool is_unowned(u32 cluster) const {
        return checked_->table.on().is_data_cluster(cluster) &&
               !checked_->owners.is_owned(cluster) && taken_.get(cluster) == 0;
    }

    void set_links(const incomplete_chain &one, const chain_links &links, finding *about,
                   std::string remedy) {
        about->remedy = std::move(remedy);
        about->moves_chains = true;
        about->repair = [links, location = node_of(one).location](repair_plan *plan) {
            for (const auto &[cluster, value] : links) {
                cluster == 0 ? plan->set_start(location, value) : plan->set_link(cluster, value);
            }
        };
    }

    // ---- shared clusters ----

    // The link into the shared clusters is wrong in the chain of their owner, if a lost chain
    // follows there which has the length that its file needs.
    bool continue_owner(const incomplete_chain &one, finding *about) {
        if (one.claimed.end != chain_end::SHARED) {
            return false;
        }
        const u32 owner = checked_->owners.owner_of(one.claimed.at);
        const entry &file = checked_->nodes[owner].dentry;
        if (file.is_directory() || owner == ROOT_NODE) {
            return false;
        }
        const u32 wanted = clusters_for(checked_->on(), file.size());
        u32 count = 0;
        u32 before = 0;
        for (u32 at = file.start(); at != one.claimed.at; at = checked_->table.get(at)) {
            if (++count >= wanted || --steps_left_ == 0) {
                return false;
            }
            before = at;
        }
        if (!take_next_lost(before, wanted - count)) {
            return false;
        }
        about->remedy = fmt::format("{} continued with the lost chain at cluster {} instead",
                                    shown_path(*checked_, owner), before + 1);
        about->moves_chains = true;
        about->repair = [before](repair_plan *plan) { plan->set_link(before, before + 1); };
        return true;
    }

    bool copy_shared(const incomplete_chain &one, finding *about) {
        if (one.claimed.end != chain_end::SHARED) {
            return false;
        }
        const std::vector<u32> shared = shared_clusters(one);
        if (shared.size() > free_clusters()) {
            about->obstacle = "no space for a copy of the shared clusters";
            *free_clusters_ = 0; // what is copied does not depend on the order of the files
            return true;
        }
        *free_clusters_ -= static_cast<u32>(shared.size());
        const u32 count = one.claimed.count + static_cast<u32>(shared.size());
        about->remedy = counted(shared.size(), "cluster", "clusters") + " copied";
        about->repair = [this_file = node_of(one), shared, last = one.claimed.last,
                         size = size_of(count, node_of(one).dentry)](repair_plan *plan) {
            plan->copy_clusters(shared, last, this_file.location);
            plan->set_size(this_file.location, size);
        };
        return true;
    }

    // What the chain leads to, at most as many clusters as are missing, and one more than are free.
    [[nodiscard]] std::vector<u32> shared_clusters(const incomplete_chain &one) {
        const std::size_t most = std::min<std::size_t>(one.missing, free_clusters() + 1);
        std::vector<u32> clusters;
        for (u32 at = one.claimed.at; clusters.size() < most;) {
            clusters.push_back(at);
            at = checked_->table.get(at);
            if (checked_->on().kind_of_link(at) != core::link_kind::NEXT ||
                !checked_->owners.is_owned(at)) {
                break;
            }
        }
        return clusters;
    }

    [[nodiscard]] u32 free_clusters() {
        if (!free_clusters_) {
            free_clusters_ = checked_->table.free_count();
        }
        return *free_clusters_;
    }

    // ---- ends ----

    [[nodiscard]] u32 size_of(u32 clusters, const entry &file) const {
        const u64 most = u64{clusters} * checked_->on().cluster_bytes();
        return static_cast<u32>(std::min<u64>(most, file.size()));
    }

    void cut(const incomplete_chain &one, finding *about) {
        const tree_node &file = node_of(one);
        const u32 size = size_of(one.claimed.count, file.dentry);
        about->remedy =
            one.claimed.last == 0
                ? "no cluster is left: size set to 0"
                : fmt::format("cut after {}", counted(one.claimed.count, "cluster", "clusters"));
        about->repair = [last = one.claimed.last, size, location = file.location,
                         is_ended = one.claimed.end == chain_end::MARK](repair_plan *plan) {
            if (last == 0) {
                plan->clear_start(location);
            } else if (!is_ended) {
                plan->end_chain(last);
            }
            plan->set_size(location, size);
        };
    }

    // ---- directories ----

    void mend_directory(const incomplete_chain &one, finding *about) {
        if (one.claimed.last != 0) {
            about->remedy =
                fmt::format("cut after {}", counted(one.claimed.count, "cluster", "clusters"));
            about->repair = [last = one.claimed.last](repair_plan *plan) { plan->end_chain(last); };
        }
    }

    survey *checked_;
    std::map<u32, std::vector<u32>> lost_by_count_; // heads of files
    std::map<u32, u32> lost_counts_;                // by head; without those taken
    std::map<u32, u32> wanting_;                    // chains by their missing clusters
    cluster_map taken_;                             // by completions
    bool copies_differ_ = false;
    std::optional<u32> free_clusters_; // without those for copies; no value: not counted yet
    u64 steps_left_ = 1 << 22;         // along chains of owners: the time is limited
};

} // namespace

void mend_chains(survey *checked) {
    if (checked->extent == repair_extent::ALL && !checked->incomplete.empty()) {
        chain_mender(checked).run();
    }
}

} // namespace qvol
