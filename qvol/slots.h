// The 32-byte slots of a directory, and the entries that they form.

#pragma once

#include "qvol/directory.h"

namespace qvol {

// The maximum size of a directory in other systems.
inline constexpr u32 MAX_SLOTS = 65536;

[[nodiscard]] bool is_removed(const u8 *slot);
[[nodiscard]] bool is_long_name_slot(const u8 *slot);

// An attribute byte with both the label and the directory bit does not form an entry.
[[nodiscard]] bool is_entry(const u8 *slot);

// Collects the slots of a long name during a walk over the slots. The name is valid only if it is
// whole: its slots directly precede the short entry, in descending order from the one marked last
// to 1, and have the checksum of that entry.
struct name_assembler {
    std::u16string units;
    u32 first_slot = 0;
    u32 missing = 0; // slots that are expected next
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

// The entry of a short slot, with the long name if that belongs to it.
// `is_wide`: of FAT32.
[[nodiscard]] entry entry_of_slot(const u8 *slot, u32 index, const name_assembler &assembler,
                                  bool is_wide);

} // namespace qvol
