#include "qvol/check/check.h"

#include "qvol/check/repair.h"

#include <algorithm>
#include <optional>
#include <set>

namespace qvol {

namespace {

// ---- the order of findings ----

// The position of each node in a walk through the tree by path.
std::vector<u32> ranks_of(const survey &checked) {
    std::vector<u32> ranks(checked.nodes.size());
    std::vector<u32> pending = {ROOT_NODE};
    for (u32 rank = 0; !pending.empty(); rank++) {
        const u32 node = pending.back();
        pending.pop_back();
        ranks[node] = rank;
        const tree_node &here = checked.nodes[node];
        for (u32 i = here.children; i > 0; i--) {
            pending.push_back(here.first_child + i - 1);
        }
    }
    return ranks;
}

// Areas first, then findings with a path, then lost clusters.
void sort_findings(survey *checked) {
    const std::vector<u32> ranks = ranks_of(*checked);
    const auto position = [&](const finding &one) {
        const u32 group = one.node != NO_NODE ? 1 : one.kind == &found::LOST ? 2 : 0;
        return std::pair(group, group == 1 ? ranks[one.node] : group == 2 ? one.cluster : 0);
    };
    std::stable_sort(checked->findings.begin(), checked->findings.end(),
                     [&](const finding &a, const finding &b) { return position(a) < position(b); });
}

void run_all_checks(survey *checked) {
    check_areas(checked);
    check_directories(checked);
    check_label(checked);
    check_files(checked);
    check_reserved_files(checked);
    check_fsinfo_counts(checked);
    check_lost_clusters(checked);
    mend_chains(checked);
    sort_findings(checked);
}

// ---- the report ----

reported_finding report_of(const survey &checked, const finding &one) {
    reported_finding result;
    result.kind = one.kind->name;
    result.cluster = one.cluster;
    result.text = one.text;
    result.restores_entry = one.restores_entry;
    if (one.other != NO_NODE) {
        result.json_other = json_path(path_of(checked, one.other));
    }
    if (one.node != NO_NODE) {
        const name_path path = path_of(checked, one.node);
        result.path = shown_path(checked.vol.names(), path);
        result.json_path = json_path(path);
    }
    return result;
}

check_result result_of(const survey &checked) {
    check_result result;
    for (const finding &one : checked.findings) {
        result.findings.push_back(report_of(checked, one));
        result.broken_chains += one.kind->scope == damage::CHAINS ? 1 : 0;
        result.are_copies_equal = result.are_copies_equal && one.kind != &found::FAT_COPIES;
    }
    for (const tree_node &node : checked.nodes) {
        (node.dentry.is_directory() ? result.directories : result.files)++;
    }
    result.files--; // the root, which has no entry
    result.sound_entries = result.files + result.directories -
                           static_cast<u64>(std::count_if(
                               checked.incomplete.begin(), checked.incomplete.end(),
                               [](const incomplete_chain &one) { return one.node != ROOT_NODE; }));
    result.used_clusters = checked.used_clusters;
    result.clusters = checked.table.last_cluster() - core::FIRST_DATA_CLUSTER + 1;
    return result;
}

// ---- the repair ----

// Directories whose clusters another entry owns as well, or whose dot entries are missing, and the
// entries below them: the slots may be the bytes of a file or belong elsewhere, so they are not
// changed. A parent comes before its children.
std::vector<bool> doubtful_nodes(const survey &checked) {
    std::vector<bool> doubtful(checked.nodes.size());
    for (u32 node = ROOT_NODE + 1; node < checked.nodes.size(); node++) {
        const tree_node &here = checked.nodes[node];
        const bool is_certain = checked.extent == repair_extent::ALL && here.has_own_dots;
        doubtful[node] = here.is_doubtful || doubtful[here.parent] ||
                         (here.is_shared && here.dentry.is_directory() && !is_certain);
    }
    return doubtful;
}

// Decides which findings are repaired: that depends on all findings together.
class repair_policy {
public:
    explicit repair_policy(const survey &checked)
        : doubtful_(doubtful_nodes(checked)), extent_(checked.extent),
          frees_lost_(checked.frees_lost) {
        for (const finding &one : checked.findings) {
            are_areas_in_doubt_ |= one.kind->scope == damage::AREAS;
            has_broken_chains_ |= !has_repair(one) && one.kind->scope == damage::CHAINS;
            leaves_shared_ |= !has_repair(one) && one.kind == &found::CHAIN_SHARED;
            has_slots_past_root_ |= one.kind == &found::PAST_END && one.node == ROOT_NODE;
            do_copies_differ_ |= one.kind == &found::FAT_COPIES;
        }
        for (const finding &one : checked.findings) {
            moves_chains_ |= one.moves_chains && may_repair(one);
        }
        leaves_findings_ = std::any_of(
            checked.findings.begin(), checked.findings.end(),
            [this](const finding &one) { return one.kind != &found::DIRTY && !may_repair(one); });
    }

    [[nodiscard]] bool may_repair(const finding &one) const {
        if (!has_repair(one) || are_areas_in_doubt_ || is_doubtful(one)) {
            return false;
        }
        if (one.kind == &found::DIRTY) {
            return !leaves_findings_;
        }
        if ((one.waits && moves_chains_) ||
            (one.kind == &found::LOST && !frees_lost_ && may_lose_evidence())) {
            return false;
        }
        return !(has_broken_chains_ && needs_whole_chains(*one.kind)) &&
               !(leaves_shared_ && cuts_chain(one));
    }

    [[nodiscard]] bool moves_chains() const {
        return moves_chains_;
    }

    [[nodiscard]] const char *obstacle(const finding &one) const {
        if (one.obstacle != nullptr) {
            return one.obstacle;
        }
        if (!has_repair(one)) {
            return one.kind->obstacle;
        }
        return are_areas_in_doubt_                                ? found::AREAS_IN_DOUBT
               : is_doubtful(one)                                 ? found::DOUBTFUL
               : needs_whole_chains(*one.kind) || cuts_chain(one) ? found::BROKEN_CHAIN
                                                                  : one.kind->obstacle;
    }

private:
    [[nodiscard]] bool has_repair(const finding &one) const {
        return one.repair != nullptr && (extent_ == repair_extent::ALL || !one.is_disputable);
    }

    // Clusters after the end of one file may be those of another that shares them.
    static bool cuts_chain(const finding &one) {
        return one.waits && (one.kind->scope == damage::CHAINS || one.kind == &found::CHAIN_LONG);
    }

    // What is freed or overwritten must not belong to a broken chain.
    [[nodiscard]] bool needs_whole_chains(const finding_kind &kind) const {
        const bool is_lost = &kind == &found::LOST;
        return &kind == &found::FAT_COPIES || (is_lost && extent_ == repair_extent::SAFE) ||
               (frees_lost_ &&
                (is_lost || kind.scope == damage::CHAINS || &kind == &found::CHAIN_LONG));
    }

    // The entry of the FOUND directory could overwrite slots past the end of the root, and its
    // cluster the sector of another FAT copy that has what a broken chain lacks.
    [[nodiscard]] bool may_lose_evidence() const {
        return has_slots_past_root_ || (has_broken_chains_ && do_copies_differ_);
    }

    [[nodiscard]] bool is_doubtful(const finding &one) const {
        return one.node != NO_NODE && doubtful_[one.node];
    }

    std::vector<bool> doubtful_; // by node
    repair_extent extent_;
    bool frees_lost_;
    bool are_areas_in_doubt_ = false;
    bool has_broken_chains_ = false;
    bool has_slots_past_root_ = false;
    bool do_copies_differ_ = false;
    bool leaves_shared_ = false;
    bool moves_chains_ = false;
    bool leaves_findings_ = false;
};

// What uses certain clusters again comes before what takes any free ones, what frees some is last.
int order_of(const finding &one) {
    const bool is_copied = one.kind == &found::CHAIN_SHARED || one.kind == &found::CHAIN_BAD;
    return is_copied ? 1 : one.moves_chains ? 0 : 2;
}

// Plans the repairs and sets the outcome of each finding. Returns whether there is anything to
// repair.
bool plan_repairs(const survey &checked, const repair_policy &policy, repair_plan *plan,
                  check_result *result) {
    std::vector<const finding *> repaired;
    for (std::size_t i = 0; i < checked.findings.size(); i++) {
        const finding &one = checked.findings[i];
        reported_finding &report = result->findings[i];
        report.is_repaired = policy.may_repair(one);
        report.outcome = report.is_repaired ? one.remedy : policy.obstacle(one);
        if (report.is_repaired) {
            repaired.push_back(&one);
        }
    }
    std::stable_sort(repaired.begin(), repaired.end(), [](const finding *a, const finding *b) {
        return order_of(*a) < order_of(*b);
    });
    for (const finding *one : repaired) {
        one->repair(plan);
    }
    return !repaired.empty();
}

// The second check decides: a finding that it has as well is not repaired, and one that was hidden
// before is added.
void compare_with_second_check(const check_result &second, check_result *result) {
    std::multiset<reported_finding> remaining;
    std::set<reported_finding> repaired;
    for (const reported_finding &one : second.findings) {
        one.is_repaired ? void(repaired.insert(one)) : void(remaining.insert(one));
    }
    const std::set<reported_finding> known(result->findings.begin(), result->findings.end());
    for (reported_finding &one : result->findings) {
        const auto [first, last] = remaining.equal_range(one);
        const bool is_present = first != last;
        if (is_present && std::none_of(first, last, [&](const reported_finding &other) {
                return other.text == one.text;
            })) {
            one.text = first->text; // other repairs have changed its numbers
        }
        if (one.is_repaired && is_present) {
            one.is_repaired = false;
            one.outcome = "still present after the repair";
        } else if (!one.is_repaired && !is_present) {
            const auto later = repaired.find(one);
            one.is_repaired = true;
            one.outcome = later != repaired.end() ? later->outcome : "fixed by another repair";
        }
    }
    for (const reported_finding &one : second.findings) {
        if (!known.contains(one)) {
            result->findings.push_back(one);
            if (one.outcome.empty()) {
                result->findings.back().outcome = "found only after the other repairs";
            }
        }
    }
    result->used_clusters = second.used_clusters;
    result->files = second.files;
    result->directories = second.directories;
}

// A round gives owners to lost clusters; the next one checks what was found with them. The limit is
// reached on volumes that are made to reach it.
constexpr u32 MAX_ROUNDS = 8;

// One round. Returns whether there has to be another one; no value: nothing was written.
std::optional<bool> repair_once(volume &vol, const repair_request &request, bool may_continue,
                                check_result *result) {
    survey checked(vol, request.extent, request.frees_lost);
    checked.renames = request.renames;
    run_all_checks(&checked);
    *result = result_of(checked);
    if (result->is_fat_in_doubt() && !request.is_fat_believed) {
        return std::nullopt;
    }
    const repair_policy policy(checked);
    repair_plan plan(vol);
    if (!plan_repairs(checked, policy, &plan, result)) {
        return std::nullopt;
    }
    const u32 kept_directories = plan.write(may_continue);
    return may_continue && (kept_directories != 0 || policy.moves_chains());
}

check_result repair_in_rounds(volume &vol, const repair_request &request, u32 rounds) {
    check_result result;
    const std::optional<bool> continues = repair_once(vol, request, rounds > 0, &result);
    if (!continues) {
        return result;
    }
    vol.fat().forget_changes();
    repair_request next = request;
    next.is_fat_believed = true;
    compare_with_second_check(
        *continues ? repair_in_rounds(vol, next, rounds - 1) : check_volume(vol), &result);
    return result;
}

} // namespace

check_result check_volume(volume &vol) {
    survey checked(vol);
    run_all_checks(&checked);
    return result_of(checked);
}

check_result repair_volume(volume &vol, const repair_request &request) {
    return repair_in_rounds(vol, request, MAX_ROUNDS);
}

} // namespace qvol
