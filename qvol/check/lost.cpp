// Lost clusters: in use by the FAT, and of no entry.

#include "qvol/check/repair.h"
#include "qvol/check/survey.h"
#include "qvol/output.h"

#include "fat/internal.h"

#include <fmt/core.h>

namespace qvol {

namespace {

// Steps of a lost cluster on its way into a chain.
constexpr u32 LOST_HEAD = LOST_OWNER - 2;   // no other leads to it
constexpr u32 LOST_MEMBER = LOST_OWNER - 1; // another one does

bool is_waiting(const survey &in, u32 cluster) {
    const u32 owner = in.owners.get(cluster);
    return owner == LOST_HEAD || owner == LOST_MEMBER;
}

// Whether a value of the FAT is the number of a lost cluster that is in no chain yet.
bool leads_to_waiting(const survey &in, u32 value) {
    return value >= fat::FIRST_DATA_CLUSTER && value <= in.table.last_cluster() &&
           is_waiting(in, value);
}

std::vector<u32> collect_lost(survey *in) {
    std::vector<u32> lost;
    in->table.visit_used([&](u32 cluster, u32 value) {
        if (value != fat::bad_mark() && in->owners.get(cluster) == 0) {
            in->owners.set(cluster, LOST_HEAD);
            lost.push_back(cluster);
        }
    });
    return lost;
}

void mark_members(survey *in, const std::vector<u32> &lost) {
    for (const u32 cluster : lost) {
        const u32 next = in->table.get(cluster);
        if (next != cluster && leads_to_waiting(*in, next)) {
            in->owners.set(next, LOST_MEMBER);
        }
    }
}

void take_chain(survey *in, u32 head) {
    u32 count = 0;
    for (u32 cluster = head; leads_to_waiting(*in, cluster); cluster = in->table.get(cluster)) {
        in->owners.set(cluster, LOST_OWNER);
        count++;
    }
    in->add({&found::LOST, NO_NODE, head,
             count == 1 ? "is lost: in use, and of no entry"
                        : fmt::format("begins a lost chain of {} clusters: in use, and of no entry",
                                      count),
             counted(count, "cluster was", "clusters were") + " given back",
             [head, count](repair *plan) { plan->release_chain(head, count); }});
}

} // namespace

// Chains from their heads; what then is left are circles.
void check_lost_clusters(survey *in) {
    const std::vector<u32> lost = collect_lost(in);
    mark_members(in, lost);
    for (const u32 step : {LOST_HEAD, LOST_MEMBER}) {
        for (const u32 cluster : lost) {
            if (in->owners.get(cluster) == step) {
                take_chain(in, cluster);
            }
        }
    }
}

} // namespace qvol
