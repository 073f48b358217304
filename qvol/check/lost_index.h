// The lost chains of a survey, for repairs that find the entry which a chain belongs to. Each chain
// is taken once.

#pragma once

#include "qvol/check/survey.h"

#include <map>
#include <optional>
#include <set>

namespace qvol {

class lost_index {
public:
    explicit lost_index(const survey &checked);

    // A chain of exactly `count` clusters that begins with `head`, and is no directory.
    [[nodiscard]] bool has_file(u32 head, u32 count) const;
    bool take_file(u32 head, u32 count);

    // The only chain that is no directory, if it has `count` clusters.
    std::optional<u32> take_only_file(u32 count);

    // A chain of any length, but no directory: its number of clusters, 0 without such a chain.
    u32 take_any(u32 head);

    [[nodiscard]] bool has_directory(u32 head) const {
        return parents_.contains(head);
    }
    // A directory whose ".." leads to `parent`, which is 0 for the root.
    bool take_directory(u32 head, u32 parent);
    // The only one of this parent.
    std::optional<u32> take_only_directory(u32 parent);

private:
    std::map<u32, u32> files_;                 // counts by head
    std::map<u32, std::set<u32>> directories_; // heads by parent
    std::map<u32, u32> parents_;               // by head
};

} // namespace qvol
