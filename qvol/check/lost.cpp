// Lost clusters: allocated in the FAT, referenced by no entry.

#include "qvol/check/repair.h"
#include "qvol/check/survey.h"
#include "qvol/output.h"

#include <fmt/core.h>

namespace qvol {

namespace {

// Owners of a lost cluster that is not yet part of a reported chain.
constexpr u32 LOST_HEAD = LOST_OWNER - 2;   // no lost cluster links to it
constexpr u32 LOST_MEMBER = LOST_OWNER - 1; // a lost cluster links to it

bool is_pending(const survey &checked, u32 cluster) {
    const u32 owner = checked.owners.get(cluster);
    return owner == LOST_HEAD || owner == LOST_MEMBER;
}

// Whether a value of the FAT is the number of a pending lost cluster.
bool links_to_pending(const survey &checked, u32 value) {
    return checked.table.on().is_data_cluster(value) && is_pending(checked, value);
}

std::vector<u32> collect_lost(survey *checked) {
    std::vector<u32> lost;
    checked->table.visit_used([&](u32 cluster, u32 value) {
        if (value != checked->on().bad_mark() && checked->owners.get(cluster) == 0) {
            checked->owners.set(cluster, LOST_HEAD);
            lost.push_back(cluster);
        }
    });
    return lost;
}

void mark_members(survey *checked, const std::vector<u32> &lost) {
    for (const u32 cluster : lost) {
        const u32 next = checked->table.get(cluster);
        if (next != cluster && links_to_pending(*checked, next)) {
            checked->owners.set(next, LOST_MEMBER);
        }
    }
}

void report_chain(survey *checked, u32 head) {
    u32 count = 0;
    for (u32 cluster = head; links_to_pending(*checked, cluster);
         cluster = checked->table.get(cluster)) {
        checked->owners.set(cluster, LOST_OWNER);
        count++;
    }
    checked->add(
        {&found::LOST, NO_NODE, head,
         count == 1
             ? "lost cluster: allocated, referenced by no entry"
             : fmt::format("lost chain of {} clusters: allocated, referenced by no entry", count),
         counted(count, "cluster", "clusters") + " freed",
         [head, count](repair_plan *plan) { plan->release_chain(head, count); }});
}

} // namespace

// Reports chains from their heads; the remaining clusters form cycles.
void check_lost_clusters(survey *checked) {
    const std::vector<u32> lost = collect_lost(checked);
    mark_members(checked, lost);
    for (const u32 owner : {LOST_HEAD, LOST_MEMBER}) {
        for (const u32 cluster : lost) {
            if (checked->owners.get(cluster) == owner) {
                report_chain(checked, cluster);
            }
        }
    }
}

} // namespace qvol
