// The 32-byte slots of a directory, one after another: which of them make up an entry.

#pragma once

#include "qvol/directory.h"

namespace qvol {

// What other systems take for the longest directory.
inline constexpr u32 MAX_SLOTS = 65536;

[[nodiscard]] bool is_removed(const u8 *slot);
[[nodiscard]] bool is_long_name_slot(const u8 *slot);

// An attribute byte that is a label and a directory at once belongs to no entry.
[[nodiscard]] bool is_entry(const u8 *slot);

// The long name that a walk over the slots is in. It counts only where it is whole: its slots stand
// right in front of the short entry, in falling order from the one marked last to 1, and carry that
// entry's checksum.
struct name_assembler {
    std::u16string units;
    u32 first_slot = 0;
    u32 missing = 0; // slots that are still to come
    u8 checksum = 0;

    void reset() {
        *this = name_assembler{};
    }
    void accept(const u8 *slot, u32 index);

    [[nodiscard]] bool is_whole() const {
        return !units.empty() && missing == 0;
    }
    [[nodiscard]] bool belongs_to(const u8 *short_entry) const;
};

// The entry of a short slot, with the long name where that is its own.
[[nodiscard]] entry entry_of_slot(const u8 *slot, u32 index, const name_assembler &run);

} // namespace qvol
