// The lost chains of a survey, for repairs that find the entry which a chain belongs to. Each chain
// is taken once.

#pragma once

#include "qvol/check/survey.h"

#include <map>
#include <optional>
#include <vector>

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

    // Directories whose ".." leads to `parent`, which is 0 for the root.
    [[nodiscard]] std::vector<u32> directories_below(u32 parent) const;
    [[nodiscard]] bool has_directory(u32 head) const;
    bool take_directory(u32 head);

private:
    std::map<u32, u32> files_;            // counts by head
    std::multimap<u32, u32> directories_; // heads by parent
    std::map<u32, u32> parents_;          // by head
};

} // namespace qvol
