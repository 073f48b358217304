// Removed entries in the slots of a directory.
//
// A removal overwrites the first byte of every slot: the first character of the short name, and the
// ordinals of the long-name slots. The checksum of these gives the first character back.

#pragma once

#include "qvol/directory.h"

#include <span>
#include <vector>

namespace qvol {

struct removed_entry {
    entry dentry;                // the first byte of its short name is restored, or "_"
    bool is_first_lost = false;  // no long name, so the first character is lost
    bool is_end_unknown = false; // the long name may have had more slots
};

// The entries that were removed, by their slots, up to the end of the directory. Leaves out what is
// not a file, a link or a directory.
[[nodiscard]] std::vector<removed_entry> removed_entries(std::span<const u8> slots, bool is_wide);

// The entries that a removed directory still has: nothing leads to them any more.
[[nodiscard]] std::vector<removed_entry> remaining_entries(std::span<const u8> slots, bool is_wide);

// Whether the bytes of a cluster can be slots. `ends` receives whether the directory ends in it.
[[nodiscard]] bool are_slots(std::span<const u8> bytes, bool *ends);

} // namespace qvol
