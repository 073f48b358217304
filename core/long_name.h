// Long names: the slots that hold them, and names assembled out of slots.
//
// Slot k, counted from 1, holds units (k - 1) x 13 to k x 13 - 1 of the name. The slots of a name
// directly precede its short entry, the last one first. Its ordinal carries a mark.

#pragma once

#include "core/short_name.h"

namespace core {

inline constexpr u32 MAX_NAME_UNITS = 255;
inline constexpr u32 UNITS_PER_SLOT = 13;

// Number of slots that a name of `length` units takes before its short entry.
[[nodiscard]] constexpr u32 long_slots_of(u32 length) {
    return div_ceil(length, UNITS_PER_SLOT);
}

// The position of a slot in its name, counted from 1. Damaged slots have any number.
[[nodiscard]] inline u32 slot_number(const u8 *slot) {
    return load(slot, SLOT_ORDINAL) & ~SLOT_LAST;
}
[[nodiscard]] inline bool is_last_slot(const u8 *slot) {
    return (load(slot, SLOT_ORDINAL) & SLOT_LAST) != 0;
}

// ---- storing ----

// The units that end a name: its terminator, or 0xFFFF as well, which is the padding after the
// terminator. Kernels store U+FFFF like any other character, the library ends a name with it.
enum class name_end { TERMINATOR, TERMINATOR_OR_PADDING };

// Stores a slot. `units` has 13 units, or fewer with the one that ends them, which is followed by
// padding.
void store_long_slot(u8 *slot, u32 ordinal, const u16 *units, u8 checksum, name_end end);

// Stores slot `number` of a name that takes `count` slots. The name is terminated.
void store_slot_of_name(u8 *slot, u32 number, u32 count, const u16 *name, u8 checksum,
                        name_end end);

// ---- reading ----

// Copies the units of a slot up to its terminator, and terminates those of a full last slot.
// Returns their number with the terminator: up to 14.
u32 load_units(const u8 *slot, u16 *units);

// The units of a slot that are copied: those of load_units(), or all 13, the padding included.
enum class slot_units { TO_TERMINATOR, ALL };

// Copies the units of a slot to `position` in a name with room for `room` units. Skips units
// outside: a damaged slot can select positions far beyond.
void copy_units(const u8 *slot, s64 position, slot_units which, u16 *name, u32 room);

// Copies the units of a slot to the position that its ordinal selects.
void gather_slot(const u8 *slot, u16 *name, u32 room);

// Collects the slots of a long name during a walk over a directory. The name is valid only if it is
// whole: its slots directly precede the short entry, in descending order from the one marked last
// to 1, and have the checksum of that entry. The owner calls reset() after every other slot.
class name_assembler {
public:
    void reset() {
        missing_ = 0;
        is_whole_ = false;
    }
    void accept(const u8 *slot, u32 index);

    [[nodiscard]] bool is_whole() const {
        return is_whole_ && units_[0] != 0;
    }
    [[nodiscard]] bool belongs_to(const u8 *short_entry) const;

    // Of a whole name: its units up to the terminator, and the index of its first slot.
    [[nodiscard]] const u16 *units() const {
        return units_;
    }
    [[nodiscard]] u32 first_slot() const {
        return first_slot_;
    }

private:
    static constexpr u32 ROOM = MAX_LONG_SLOTS * UNITS_PER_SLOT;

    u32 first_slot_ = 0;
    u32 missing_ = 0; // number of slots that are expected next
    u8 checksum_ = 0;
    bool is_whole_ = false;
    u16 units_[ROOM + 1] = {}; // the last one is always 0
};

} // namespace core
