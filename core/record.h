// What the 32 bytes of a directory slot are: kinds, first cluster, time stamps.

#pragma once

#include "core/layout.h"

#include <ctime>

namespace core {

// The numbers are those that listings show.
enum class slot_kind : u8 {
    UNUSED = 0, // also the end of the directory
    DELETED = 1,
    FILE = 2,
    DIRECTORY = 3,
    LONG_NAME = 4,
    INVALID = 6, // both a directory and a volume label
    LABEL = 8,
};

// Inline, as all that walks call for each slot.
[[nodiscard]] inline slot_kind kind_of(const u8 *slot) {
    const u8 first = slot[SHORT_NAME.offset];
    const u32 attr = load(slot, SHORT_ATTR);
    if (first == NAME_UNUSED) {
        return slot_kind::UNUSED;
    }
    if (first == NAME_DELETED) {
        return slot_kind::DELETED;
    }
    if ((attr & ATTR_LONG_NAME_MASK) == ATTR_LONG_NAME) {
        return slot_kind::LONG_NAME;
    }
    switch (attr & ATTR_KIND_MASK) {
    case 0:
        return slot_kind::FILE;
    case ATTR_DIRECTORY:
        return slot_kind::DIRECTORY;
    case ATTR_VOLUME:
        return slot_kind::LABEL;
    default:
        return slot_kind::INVALID;
    }
}

// Whether a new entry may use the slot.
[[nodiscard]] inline bool is_free_slot(const u8 *slot) {
    const u8 first = slot[SHORT_NAME.offset];
    return first == NAME_UNUSED || first == NAME_DELETED;
}

// A file or a directory, the kinds that a name can refer to.
[[nodiscard]] inline bool is_named_kind(slot_kind kind) {
    return kind == slot_kind::FILE || kind == slot_kind::DIRECTORY;
}

// Whether a short entry is that of a directory which is not deleted. False for null.
[[nodiscard]] bool is_live_directory(const u8 *entry);

[[nodiscard]] bool is_symlink(const u8 *entry);

// First cluster of a short entry.
[[nodiscard]] u32 start_cluster(const u8 *entry);
void set_start_cluster(u8 *entry, u32 cluster);

struct dos_moment {
    u16 date; // years since 1980, month, day
    u16 time; // hours, minutes, seconds / 2
};
[[nodiscard]] dos_moment dos_moment_of(const tm &local);

// The fields of a short entry to write; all others are 0.
struct short_entry {
    const u8 *name; // 11 bytes
    u32 attributes = 0;
    u32 case_bits = 0;
    u32 start = 0;
    dos_moment modified = {};
    bool is_link = false;
};
void store_short_entry(u8 *slot, const short_entry &of);

} // namespace core
