#include "qvol/salvage/claims.h"

#include <algorithm>

namespace qvol {

namespace {

// How many times all free clusters are visited at most.
constexpr u64 MAX_VISITS = 8;

u64 end_of(const cluster_extent &extent) {
    return u64{extent.first} + extent.count;
}

// The first extent that ends after the cluster.
std::vector<cluster_extent>::const_iterator extent_at(const std::vector<cluster_extent> &extents,
                                                      u64 cluster) {
    return std::upper_bound(
        extents.begin(), extents.end(), cluster,
        [](u64 number, const cluster_extent &extent) { return number < end_of(extent); });
}

class settlement {
public:
    settlement(const std::vector<cluster_extent> &free, std::vector<cluster_claim> *claims)
        : free_(free), claims_(*claims) {
        for (const cluster_extent &extent : free) {
            steps_left_ += MAX_VISITS * extent.count;
        }
    }

    void settle() {
        find_contiguous();
        contest_overlaps();
        for (const cluster_claim &one : claims_) {
            if (one.level == confidence::WHOLE) {
                taken_.push_back(one.extents.front());
            }
        }
        for (std::size_t i = 0; i < claims_.size(); i++) {
            if (has_free_start(claims_[i]) && claims_[i].extents.empty()) {
                claims_[i].is_examined = piece_together(i);
            }
        }
    }

private:
    [[nodiscard]] bool has_free_start(const cluster_claim &one) const {
        const auto extent = extent_at(free_, one.start);
        return extent != free_.end() && extent->first <= one.start;
    }

    void find_contiguous() {
        for (cluster_claim &one : claims_) {
            if (has_free_start(one) &&
                u64{one.start} + one.count <= end_of(*extent_at(free_, one.start))) {
                one.extents = {{one.start, one.count}};
                one.level = confidence::WHOLE;
            }
        }
    }

    // Of a claim that is not contiguous only the first cluster is known.
    void contest_overlaps() {
        std::size_t furthest = NO_CLAIM; // of the claims so far, the one that ends last
        u64 end = 0;
        for (std::size_t i = 0; i < claims_.size(); i++) {
            const cluster_claim &one = claims_[i];
            if (!has_free_start(one)) {
                continue;
            }
            if (one.start < end) {
                contest(i, furthest);
                contest(furthest, i);
            }
            const u64 own_end = one.start + u64{one.extents.empty() ? 1 : one.count};
            if (own_end > end) {
                end = own_end;
                furthest = i;
            }
        }
    }

    void contest(std::size_t index, std::size_t rival) {
        cluster_claim &one = claims_[index];
        one.rival = one.rival == NO_CLAIM ? rival : one.rival;
        if (one.level != confidence::GONE) {
            one.level = confidence::CONTESTED;
        }
    }

    // The free clusters after the first in ascending order, as they are allocated, without those of
    // whole files and without the starts of others. Where others start, some of the clusters that
    // follow may be theirs. Returns false if that takes too long.
    [[nodiscard]] bool piece_together(std::size_t index) {
        cluster_claim &one = claims_[index];
        auto taken = extent_at(taken_, one.start);
        std::size_t next = index + 1;
        std::vector<cluster_extent> extents;
        u32 missing = one.count;
        for (auto free = extent_at(free_, one.start); free != free_.end() && missing > 0; ++free) {
            for (u64 at = std::max(free->first, one.start); at < end_of(*free) && missing > 0;) {
                if (steps_left_ == 0) {
                    return false;
                }
                steps_left_--;
                while (taken != taken_.end() && end_of(*taken) <= at) {
                    ++taken;
                }
                if (taken != taken_.end() && taken->first <= at) {
                    at = end_of(*taken);
                    continue;
                }
                while (next < claims_.size() && claims_[next].start < at) {
                    next++;
                }
                if (at != one.start && next < claims_.size() && claims_[next].start == at) {
                    contest(index, next);
                    // Either is the rival of the other.
                    contest(next, index); // NOLINT(readability-suspicious-call-argument)
                } else {
                    append_cluster(&extents, static_cast<u32>(at));
                    missing--;
                }
                at++;
            }
        }
        if (missing == 0) {
            one.extents = std::move(extents);
            one.level = one.rival == NO_CLAIM ? confidence::PIECED : confidence::CONTESTED;
        }
        return true;
    }

    const std::vector<cluster_extent> &free_;
    std::vector<cluster_claim> &claims_;
    std::vector<cluster_extent> taken_; // by whole files
    u64 steps_left_ = 0;
};

} // namespace

void settle_claims(const std::vector<cluster_extent> &free, std::vector<cluster_claim> *claims) {
    settlement(free, claims).settle();
}

} // namespace qvol
