// How chains that lack clusters are repaired: completed where the FAT copies or the lost clusters
// show how they continue, else ended where they are still good. Clusters of another entry are
// copied.

#include "qvol/check/chains.h"
#include "qvol/check/fat_copy.h"
#include "qvol/check/fat_damage.h"
#include "qvol/check/found_files.h"
#include "qvol/check/lost_index.h"
#include "qvol/check/plausible.h"
#include "qvol/check/repair.h"
#include "qvol/file_data.h"
#include "qvol/output.h"
#include "qvol/sectors.h"
#include "qvol/slots.h"

#include <algorithm>
#include <map>
#include <set>

#include <fmt/core.h>

namespace qvol {

namespace {

// Links that complete a chain: from its last cluster on, with the value of its last entry.
// Cluster 0 represents the directory entry.
using chain_links = std::vector<std::pair<u32, u32>>; // cluster, value

class chain_mender {
public:
    explicit chain_mender(survey *checked) : checked_(checked), lost_(*checked), damage_(*checked) {
        for (const incomplete_chain &one : checked->incomplete) {
            if (one.claimed.last == 0) {
                starts_.insert(one.claimed.at);
                without_cluster_[checked->nodes[one.node].parent] += is_directory(one.node) ? 1 : 0;
            }
        }
        copies_differ_ =
            std::any_of(checked->findings.begin(), checked->findings.end(),
                        [](const finding &one) { return one.kind == &found::FAT_COPIES; });
    }

    void run() {
        show_hidden();
        restore_removed();
        for (const incomplete_chain &one : checked_->incomplete) {
            finding &about = checked_->findings[one.finding];
            about.is_disputable = true;
            is_directory(one.node) ? mend_directory(one, &about) : mend_file(one, &about);
            about.waits = !about.moves_chains;
        }
    }

private:
    [[nodiscard]] const tree_node &node_of(const incomplete_chain &one) const {
        return checked_->nodes[one.node];
    }
    // The time of all searches together is limited.
    [[nodiscard]] bool may_step() {
        steps_left_ -= steps_left_ != 0 ? 1 : 0;
        return steps_left_ != 0;
    }
    [[nodiscard]] bool is_directory(u32 node) const {
        return node == ROOT_NODE || checked_->nodes[node].dentry.is_directory();
    }

    // ---- files ----

    void mend_file(const incomplete_chain &one, finding *about) {
        const bool is_mended =
            one.missing != 0 &&
            (complete_from_copies(one, about) || complete_with_next(one, about) ||
             complete_in_sequence(one, about) || continue_owner(one, about) ||
             complete_with_only(one, about) || copy_bad(one, about) || copy_shared(one, about));
        if (!is_mended) {
            cut(one, about);
        }
    }

    // The lost chain that directly follows the last cluster, if it has the missing length.
    bool complete_with_next(const incomplete_chain &one, finding *about) {
        const u32 next = one.claimed.last + 1;
        return one.claimed.last != 0 && taken_.get(next) == 0 &&
               lost_.take_file(next, one.missing) && complete_with(one, next, about);
    }

    // Where the FAT sector was overwritten: the clusters that follow, as they were allocated, and
    // from the first one with an entry that is sound a lost chain of the missing length.
    bool complete_in_sequence(const incomplete_chain &one, finding *about) {
        if (!damage_.covers(breaking_cluster(one.claimed))) {
            return false;
        }
        const bool is_free = one.claimed.end == chain_end::FREE;
        u32 next = is_free ? one.claimed.at : one.claimed.last + 1;
        chain_links links;
        u32 cluster = one.claimed.last;
        for (u32 left = one.missing; left > 0; left--, next++) {
            if (!damage_.covers(next)) {
                if (!lost_.take_file(next, left)) {
                    return false;
                }
                links.emplace_back(cluster, next);
                return complete_with(one, links, about);
            }
            const bool is_other_start = starts_.contains(next) && next != one.claimed.at;
            if (!is_unowned(next) || is_other_start || !may_step()) {
                return false;
            }
            links.emplace_back(cluster, next);
            cluster = next;
        }
        links.emplace_back(cluster, core::FAT_END_MARK);
        return complete_with(one, links, about);
    }

    bool complete_with(const incomplete_chain &one, const chain_links &links, finding *about) {
        take(links);
        set_links(one, links, about,
                  "completed with the clusters that follow: their FAT sector was overwritten");
        return true;
    }

    void take(const chain_links &links) {
        for (const auto &[cluster, value] : links) {
            taken_.set(cluster, 1);
        }
    }

    // The only lost chain of the volume, if it has the missing length and no other chain lacks
    // clusters. With several the lengths could agree by chance.
    bool complete_with_only(const incomplete_chain &one, finding *about) {
        if (checked_->incomplete.size() != 1) {
            return false;
        }
        const std::optional<u32> head = lost_.take_only_file(one.missing);
        return head && complete_with(one, *head, about);
    }

    bool complete_with(const incomplete_chain &one, u32 head, finding *about) {
        taken_.set(head, 1);
        set_links(one, {{one.claimed.last, head}}, about,
                  fmt::format("completed with the lost chain at cluster {}", head));
        return true;
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

    // Empty if the copy does not complete the chain. The length of a directory is unknown.
    chain_links links_in_copy(u32 copy, const incomplete_chain &one) {
        fat_copy other(checked_->on(), copy);
        const u32 most = one.missing != 0 ? one.missing : MAX_SLOTS / 2;
        chain_links links;
        u32 cluster = one.claimed.last;
        u32 value = cluster == 0 ? one.claimed.at : other.get(cluster);
        while (links.size() < most && is_unowned(value) && may_step()) {
            links.emplace_back(cluster, value);
            cluster = value;
            value = other.get(cluster);
        }
        if (links.empty() || links.size() < one.missing || !checked_->on().is_end_of_chain(value)) {
            return {};
        }
        links.emplace_back(cluster, value);
        take(links);
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
            if (++count >= wanted || !may_step()) {
                return false;
            }
            before = at;
        }
        if (before == 0 || !lost_.take_file(before + 1, wanted - count)) {
            return false;
        }
        about->remedy = fmt::format("{} continued with the lost chain at cluster {} instead",
                                    shown_path(*checked_, owner), before + 1);
        about->moves_chains = true;
        about->repair = [before](repair_plan *plan) { plan->set_link(before, before + 1); };
        return true;
    }

    // A cluster that is marked bad may be readable. The lost chain after it continues the file.
    bool copy_bad(const incomplete_chain &one, finding *about) {
        const u32 bad = one.claimed.at;
        if (one.claimed.end != chain_end::BAD || free_clusters() == 0 || !is_readable(bad) ||
            taken_.get(bad) != 0) {
            return false;
        }
        const u32 after = one.missing - 1;
        const bool continues = after != 0 && lost_.take_file(bad + 1, after);
        const u32 clusters = one.claimed.count + 1 + (continues ? after : 0);
        taken_.set(bad, 1);
        (*free_clusters_)--;
        about->remedy = "copied to another cluster";
        about->moves_chains = continues;
        about->repair = [this_file = node_of(one), bad, last = one.claimed.last,
                         next = continues ? bad + 1 : core::FAT_END_MARK,
                         size = size_of(clusters, node_of(one).dentry)](repair_plan *plan) {
            plan->copy_clusters({bad}, last, this_file.location, next);
            plan->set_size(this_file.location, size);
        };
        return true;
    }

    [[nodiscard]] bool is_readable(u32 cluster) const {
        try {
            const core::volume &on = checked_->on();
            (void)read_extent(on, on.sector_of(cluster), on.at.sectors_per_cluster);
            return is_in_image(*checked_, cluster);
        } catch (const error &) {
            return false;
        }
    }

    bool copy_shared(const incomplete_chain &one, finding *about) {
        if (one.claimed.end != chain_end::SHARED) {
            return false;
        }
        const std::vector<u32> shared = shared_clusters(one);
        if (shared.size() > free_clusters()) {
            about->obstacle = "no space for a copy of the shared clusters";
            *free_clusters_ = 0; // to try all others would take long
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
        const bool has_clusters = one.claimed.last != 0;
        if (has_clusters ? !continue_directory(one, about) : !find_directory(one, about)) {
            has_clusters ? cut_directory(one, about) : empty_directory(one.node, about);
        }
    }

    // Another copy of the FAT leads on, or a lost chain that follows holds entries.
    bool continue_directory(const incomplete_chain &one, finding *about) {
        const u32 next = one.claimed.last + 1;
        if (complete_from_copies(one, about)) {
            return true;
        }
        if (!checked_->on().is_data_cluster(next) || !holds_entries(next)) {
            return false;
        }
        if (damage_.covers(next) && is_unowned(next) && !starts_.contains(next)) {
            return complete_with(one, {{one.claimed.last, next}, {next, core::FAT_END_MARK}},
                                 about);
        }
        return lost_.take_any(next) != 0 && complete_with(one, next, about);
    }

    [[nodiscard]] bool holds_entries(u32 cluster) const {
        if (!is_in_image(*checked_, cluster)) {
            return false;
        }
        const core::volume &on = checked_->on();
        const slot_votes votes = vote_on(on, read_extent(on, on.sector_of(cluster), 1));
        return votes.entries != 0 && votes.are_entries();
    }

    // The first cluster is still there, though it is marked free; or it is the only lost directory
    // whose parent is that of this entry, which is the only one there without a cluster.
    bool find_directory(const incomplete_chain &one, finding *about) {
        const u32 start = one.claimed.at;
        const bool is_free = one.claimed.end == chain_end::FREE;
        if (is_free && (one.node == ROOT_NODE || is_own_start(one.node, start))) {
            about->remedy = "marked as used";
            about->moves_chains = true;
            about->repair = [start](repair_plan *plan) { plan->end_chain(start); };
            return true;
        }
        if (takes_directory(one, about)) {
            return true;
        }
        const u32 parent = node_of(one).parent;
        if (one.node == ROOT_NODE || without_cluster_[parent] != 1) {
            return false;
        }
        const std::optional<u32> head = lost_.take_only_directory(link_to(parent));
        return head && complete_with(one, *head, about);
    }

    // Its ".." leads to the parent of this entry, not to that of the other entry which has it.
    bool takes_directory(const incomplete_chain &one, finding *about) {
        const u32 start = one.claimed.at;
        if (one.claimed.end != chain_end::SHARED || !is_own_start(one.node, start)) {
            return false;
        }
        const u32 owner = checked_->owners.owner_of(start);
        if (owner == ROOT_NODE || !is_directory(owner) || link_to(owner) != start ||
            is_own_start(owner, start) || free_clusters() == 0) {
            return false;
        }
        empty_directory(owner, about);
        about->remedy = shown_path(*checked_, owner) + " is now an empty directory";
        about->moves_chains = true;
        return true;
    }

    [[nodiscard]] bool is_own_start(u32 node, u32 cluster) const {
        const std::optional<u32> parent =
            is_in_image(*checked_, cluster) ? parent_of(checked_->on(), cluster) : std::nullopt;
        return parent == link_to(checked_->nodes[node].parent);
    }

    // The first cluster in a ".." that leads to the node.
    [[nodiscard]] u32 link_to(u32 node) const {
        return node == ROOT_NODE ? 0 : checked_->nodes[node].dentry.start();
    }

    static void cut_directory(const incomplete_chain &one, finding *about) {
        about->remedy =
            fmt::format("cut after {}", counted(one.claimed.count, "cluster", "clusters"));
        about->repair = [last = one.claimed.last](repair_plan *plan) { plan->end_chain(last); };
    }

    void empty_directory(u32 node, finding *about) {
        if (node == ROOT_NODE) {
            return;
        }
        if (free_clusters() == 0) {
            about->obstacle = "no space for a new cluster";
            return;
        }
        (*free_clusters_)--;
        about->remedy = "now an empty directory";
        about->repair = [location = checked_->nodes[node].location,
                         parent = link_to(checked_->nodes[node].parent)](repair_plan *plan) {
            plan->make_directory(location, parent);
        };
    }

    // ---- removed entries ----

    // A removed directory gets its entry back. A removed file does not, it may be what an
    // interrupted command has removed: its size is known.
    void restore_removed() {
        for (const lost_chain &chain : checked_->lost) {
            const auto found = checked_->removed.find(chain.head);
            if (found == checked_->removed.end()) {
                continue;
            }
            const lost_entry &removed = found->second;
            finding &about = checked_->findings[chain.finding];
            if (removed.is_directory) {
                restore_directory(chain.head, removed, &about);
            } else if (clusters_for(checked_->on(), removed.size) == chain.count) {
                set_size(removed, chain, &about);
            }
        }
    }

    void restore_directory(u32 start, const lost_entry &removed, finding *about) {
        if (!lost_.take_directory(start, link_to(removed.parent))) {
            return;
        }
        about->remedy =
            fmt::format("its removed entry in {} restored", shown_path(*checked_, removed.parent));
        about->is_disputable = true;
        about->moves_chains = true;
        about->restores_entry = true;
        about->waits = false;
        about->repair = [bytes = removed.first_bytes](repair_plan *plan) {
            for (const auto &[location, byte] : bytes) {
                plan->set_first_byte(location, byte);
            }
        };
    }

    void set_size(const lost_entry &removed, const lost_chain &chain, finding *about) const {
        if (checked_->frees_lost || lost_.has_directory(chain.head)) {
            return;
        }
        about->remedy = fmt::format("stored in a FOUND directory with the {} of its removed entry",
                                    counted(removed.size, "byte", "bytes"));
        about->repair = [chain, size = removed.size](repair_plan *plan) {
            plan->keep_chain(chain.head, chain.count, size);
        };
    }

    // ---- slots past the end ----

    // They are entries if most of them lead to lost chains which have the right length: then a
    // blank slot ends the directory too early.
    void show_hidden() {
        for (hidden_slots &hidden : checked_->hidden) {
            const auto leads_to_lost = [this](const hidden_slots::claim &one) {
                return one.clusters == 0 ? lost_.has_directory(one.start)
                                         : lost_.has_file(one.start, one.clusters);
            };
            const auto right =
                std::count_if(hidden.claims.begin(), hidden.claims.end(), leads_to_lost);
            if (2 * static_cast<std::size_t>(right) <= hidden.claims.size()) {
                continue;
            }
            finding &about = checked_->findings[hidden.finding];
            about.is_disputable = true;
            about.remedy = "blank slots before them marked as removed";
            about.moves_chains = true;
            about.repair = [zeros = std::move(hidden.zeros)](repair_plan *plan) {
                for (const core::slot_place &location : zeros) {
                    plan->remove_slot(location);
                }
            };
        }
    }

    survey *checked_;
    lost_index lost_;
    fat_damage damage_;
    std::map<u32, u32> without_cluster_; // directories by parent
    std::set<u32> starts_;               // of chains without a sound cluster
    cluster_map taken_;                  // by completions
    bool copies_differ_ = false;
    std::optional<u32> free_clusters_; // without those for copies; no value: not counted yet
    u64 steps_left_ = 1 << 22;         // of searches along chains
};

} // namespace

void mend_chains(survey *checked) {
    if (checked->extent == repair_extent::ALL &&
        !(checked->incomplete.empty() && checked->hidden.empty() && checked->removed.empty())) {
        chain_mender(checked).run();
    }
}

} // namespace qvol
