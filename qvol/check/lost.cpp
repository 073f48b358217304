// Lost clusters: allocated in the FAT, referenced by no entry.

#include "qvol/check/repair.h"
#include "qvol/check/survey.h"
#include "qvol/output.h"

#include "fat/internal.h"

#include <fmt/core.h>

namespace qvol {

namespace {

// Owners of a lost cluster that is not yet part of a reported chain.
constexpr u32 LOST_HEAD = LOST_OWNER - 2;   // no lost cluster links to it
constexpr u32 LOST_MEMBER = LOST_OWNER - 1; // a lost cluster links to it

bool is_pending(const survey &in, u32 cluster) {
    const u32 owner = in.owners.get(cluster);
    return owner == LOST_HEAD || owner == LOST_MEMBER;
}

// Whether a value of the FAT is the number of a pending lost cluster.
bool links_to_pending(const survey &in, u32 value) {
    return value >= fat::FIRST_DATA_CLUSTER && value <= in.table.last_cluster() &&
           is_pending(in, value);
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
        if (next != cluster && links_to_pending(*in, next)) {
            in->owners.set(next, LOST_MEMBER);
        }
    }
}

void report_chain(survey *in, u32 head) {
    u32 count = 0;
    for (u32 cluster = head; links_to_pending(*in, cluster); cluster = in->table.get(cluster)) {
        in->owners.set(cluster, LOST_OWNER);
        count++;
    }
    in->add(
        {&found::LOST, NO_NODE, head,
         count == 1
             ? "lost cluster: allocated, referenced by no entry"
             : fmt::format("lost chain of {} clusters: allocated, referenced by no entry", count),
         counted(count, "cluster", "clusters") + " freed",
         [head, count](repair_plan *plan) { plan->release_chain(head, count); }});
}

} // namespace

// Reports chains from their heads; the remaining clusters form cycles.
void check_lost_clusters(survey *in) {
    const std::vector<u32> lost = collect_lost(in);
    mark_members(in, lost);
    for (const u32 owner : {LOST_HEAD, LOST_MEMBER}) {
        for (const u32 cluster : lost) {
            if (in->owners.get(cluster) == owner) {
                report_chain(in, cluster);
            }
        }
    }
}

} // namespace qvol
