// Lost chains get entries: as files, or as the directories that they are, in a new directory
// FOUND.000 of the root.

#pragma once

#include "qvol/check/survey.h"

#include <optional>
#include <string>
#include <vector>

namespace qvol {

// The first cluster of its parent, if the chain begins with the dot entries of a directory.
[[nodiscard]] std::optional<u32> parent_of(const core::volume &on, u32 head);

// The name of the next directory for lost chains: FOUND.000, or the first that the root lacks.
[[nodiscard]] std::u16string next_found_name(const directory &root);

// Gives each chain an entry. With `keeps_directories`, the chains that are directories get theirs,
// and the others none if there is one: they may belong to it. Writes nothing, and returns false, if
// there is no space. `kept_directories` is set to their number.
[[nodiscard]] bool keep_lost_chains(volume &vol, const std::vector<lost_chain> &chains,
                                    bool keeps_directories, u32 *kept_directories);

} // namespace qvol
