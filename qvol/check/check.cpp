#include "qvol/check/check.h"

#include "qvol/check/repair.h"

#include <algorithm>
#include <set>

namespace qvol {

namespace {

// ---- the order of findings ----

// The place of each node when the tree is gone through by path.
std::vector<u32> ranks_of(const survey &of) {
    std::vector<u32> ranks(of.nodes.size());
    std::vector<u32> waiting = {ROOT_NODE};
    for (u32 rank = 0; !waiting.empty(); rank++) {
        const u32 node = waiting.back();
        waiting.pop_back();
        ranks[node] = rank;
        const tree_node &here = of.nodes[node];
        for (u32 i = here.children; i > 0; i--) {
            waiting.push_back(here.first_child + i - 1);
        }
    }
    return ranks;
}

// Areas first, then what has a path, then lost clusters.
void sort_findings(survey *in) {
    const std::vector<u32> ranks = ranks_of(*in);
    const auto place = [&](const finding &of) {
        const u32 group = of.node != NO_NODE ? 1 : of.kind == &found::LOST ? 2 : 0;
        return std::pair(group, group == 1 ? ranks[of.node] : group == 2 ? of.cluster : 0);
    };
    std::stable_sort(in->findings.begin(), in->findings.end(),
                     [&](const finding &a, const finding &b) { return place(a) < place(b); });
}

void look(survey *in) {
    check_areas(in);
    check_directories(in);
    check_files(in);
    check_reserved_files(in);
    check_fsinfo_counts(in);
    check_lost_clusters(in);
    sort_findings(in);
}

// ---- telling ----

reported_finding told(const survey &in, const finding &of) {
    reported_finding result{of.kind->name, "", "", of.cluster, of.text, false, ""};
    if (of.node != NO_NODE) {
        const name_path path = path_of(in, of.node);
        result.path = shown_path(in.vol.names(), path);
        result.json_path = json_path(path);
    }
    return result;
}

check_result result_of(const survey &of) {
    check_result result;
    for (const finding &one : of.findings) {
        result.findings.push_back(told(of, one));
    }
    for (const tree_node &node : of.nodes) {
        (node.of.is_directory() ? result.directories : result.files)++;
    }
    result.files--; // the root, which has no entry
    result.used_clusters = of.used_clusters;
    result.clusters = of.table.last_cluster() - fat::FIRST_DATA_CLUSTER + 1;
    return result;
}

// ---- mending ----

// Nothing is changed in a directory, nor below it, whose clusters belong to another as well or
// whose dot entries are not there: its slots may be the bytes of a file. A parent comes before its
// children.
std::vector<bool> doubtful_nodes(const survey &of) {
    std::vector<bool> doubtful(of.nodes.size());
    for (u32 node = ROOT_NODE + 1; node < of.nodes.size(); node++) {
        const tree_node &here = of.nodes[node];
        doubtful[node] =
            here.is_doubtful || doubtful[here.parent] || (here.is_shared && here.of.is_directory());
    }
    return doubtful;
}

// What can be mended depends on everything that was found.
class choice {
public:
    explicit choice(const survey &of) : doubtful_(doubtful_nodes(of)) {
        for (const finding &one : of.findings) {
            const bool is_left = one.mend == nullptr;
            has_other_areas_ |= one.kind->does == harm::AREAS;
            has_broken_chains_ |= is_left && one.kind->does == harm::CHAINS;
        }
        leaves_something_ =
            std::any_of(of.findings.begin(), of.findings.end(), [this](const finding &one) {
                return one.kind != &found::DIRTY && !may_mend(one);
            });
    }

    [[nodiscard]] bool may_mend(const finding &one) const {
        if (one.mend == nullptr || has_other_areas_ || is_doubtful(one)) {
            return false;
        }
        if (one.kind == &found::DIRTY) {
            return !leaves_something_;
        }
        return !has_broken_chains_ || !changes_chains(*one.kind);
    }

    [[nodiscard]] const char *obstacle(const finding &one) const {
        if (one.mend == nullptr) {
            return one.kind->obstacle;
        }
        return has_other_areas_            ? found::AREAS_IN_DOUBT
               : is_doubtful(one)          ? found::DOUBTFUL
               : changes_chains(*one.kind) ? found::BROKEN_CHAIN
                                           : one.kind->obstacle;
    }

private:
    static bool changes_chains(const finding_kind &kind) {
        return kind.does == harm::CHAINS || &kind == &found::CHAIN_LONG || &kind == &found::LOST ||
               &kind == &found::FAT_COPIES;
    }

    [[nodiscard]] bool is_doubtful(const finding &one) const {
        return one.node != NO_NODE && doubtful_[one.node];
    }

    std::vector<bool> doubtful_; // by node
    bool has_other_areas_ = false;
    bool has_broken_chains_ = false;
    bool leaves_something_ = false;
};

// Plans what can be mended, and says of each finding what came of it.
bool plan_repair(const survey &of, repair *plan, check_result *result) {
    const choice chosen(of);
    bool mends = false;
    for (std::size_t i = 0; i < of.findings.size(); i++) {
        const finding &one = of.findings[i];
        reported_finding &report = result->findings[i];
        report.is_repaired = chosen.may_mend(one);
        report.outcome = report.is_repaired ? one.remedy : chosen.obstacle(one);
        if (report.is_repaired) {
            one.mend(plan);
            mends = true;
        }
    }
    return mends;
}

// What a second look finds is the truth: a finding that is still there is left, and one that was
// hidden before is told too.
void adopt_second_look(const check_result &second, check_result *result) {
    const std::set<reported_finding> left(second.findings.begin(), second.findings.end());
    const std::set<reported_finding> known(result->findings.begin(), result->findings.end());
    for (reported_finding &one : result->findings) {
        if (one.is_repaired && left.contains(one)) {
            one.is_repaired = false;
            one.outcome = "it came back";
        } else if (!one.is_repaired && !left.contains(one)) {
            one.is_repaired = true;
            one.outcome = "it went with another";
        }
    }
    for (const reported_finding &one : second.findings) {
        if (!known.contains(one)) {
            result->findings.push_back(one);
            result->findings.back().outcome = "it shows since the others are mended";
        }
    }
    result->used_clusters = second.used_clusters;
}

} // namespace

check_result check_volume(volume &vol) {
    survey seen(vol);
    look(&seen);
    return result_of(seen);
}

check_result repair_volume(volume &vol) {
    survey seen(vol);
    look(&seen);
    check_result result = result_of(seen);
    repair plan(vol);
    if (plan_repair(seen, &plan, &result)) {
        plan.write();
        vol.fat().forget_changes();
        adopt_second_look(check_volume(vol), &result);
    }
    return result;
}

} // namespace qvol
