// Lost clusters: allocated in the FAT, referenced by no entry.

#include "qvol/check/repair.h"
#include "qvol/check/survey.h"
#include "qvol/output.h"

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr u32 HEAD = 1;     // no lost cluster links to it
constexpr u32 MEMBER = 2;   // a lost cluster links to it
constexpr u32 REPORTED = 3; // part of a reported chain

class lost_search {
public:
    explicit lost_search(survey *checked) : checked_(checked) {}

    // Reports chains from their heads; the remaining clusters form cycles.
    void run() {
        collect();
        mark_members();
        for (const u32 state : {HEAD, MEMBER}) {
            for (const u32 cluster : lost_) {
                if (states_.get(cluster) == state) {
                    report_chain(cluster);
                }
            }
        }
    }

private:
    // Whether a value of the FAT is the number of a lost cluster that is not reported yet.
    [[nodiscard]] bool links_to_pending(u32 value) const {
        const u32 state = states_.get(value);
        return state == HEAD || state == MEMBER;
    }

    void collect() {
        checked_->table.visit_used([&](u32 cluster, u32 value) {
            if (value != checked_->on().bad_mark() && !checked_->owners.is_owned(cluster)) {
                states_.set(cluster, HEAD);
                lost_.push_back(cluster);
            }
        });
    }

    void mark_members() {
        for (const u32 cluster : lost_) {
            const u32 next = checked_->table.get(cluster);
            if (next != cluster && links_to_pending(next)) {
                states_.set(next, MEMBER);
            }
        }
    }

    void report_chain(u32 head) {
        u32 count = 0;
        for (u32 cluster = head; links_to_pending(cluster);
             cluster = checked_->table.get(cluster)) {
            states_.set(cluster, REPORTED);
            count++;
        }
        checked_->lost.push_back({head, count, 0, checked_->findings.size()});
        checked_->add(
            {&found::LOST, NO_NODE, head,
             count == 1
                 ? "lost cluster: allocated, referenced by no entry"
                 : fmt::format("lost chain of {} clusters: allocated, referenced by no entry",
                               count),
             checked_->frees_lost ? counted(count, "cluster", "clusters") + " freed"
                                  : "stored in a FOUND directory",
             [head, count, frees = checked_->frees_lost](repair_plan *plan) {
                 frees ? plan->release_chain(head, count) : plan->keep_chain(head, count);
             }});
        checked_->findings.back().waits = true;
    }

    survey *checked_;
    std::vector<u32> lost_;
    cluster_map states_; // of the lost clusters
};

} // namespace

void check_lost_clusters(survey *checked) {
    lost_search(checked).run();
}

} // namespace qvol
