// Whether bytes are the slots of a directory. The test is a rough one: what any system may have
// written passes, text and random bytes do not.

#pragma once

#include "core/volume.h"

#include <span>

namespace qvol {

// Of the slots in use: how many can be entries, how many cannot.
struct slot_votes {
    core::u32 entries = 0;
    core::u32 others = 0;

    [[nodiscard]] bool are_entries() const {
        return entries >= others;
    }
};

[[nodiscard]] slot_votes vote_on(const core::volume &on, std::span<const core::u8> slots);

} // namespace qvol
