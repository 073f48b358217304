#include "core/long_name.h"

namespace core {

void store_long_slot(u8 *slot, u32 ordinal, const u16 *units, u8 checksum, name_end end) {
    constexpr u16 PADDING = 0xFFFF;
    store(slot, SLOT_ORDINAL, ordinal);
    store(slot, SLOT_ATTR, ATTR_LONG_NAME);
    store(slot, SLOT_SYSID, 0);
    store(slot, SLOT_CHECKSUM, checksum);
    store(slot, SLOT_START, 0);
    bool ended = false;
    for (u32 i = 0; i < UNITS_PER_SLOT; i++) {
        const u16 unit = ended ? PADDING : units[i];
        store16(slot + slot_unit_offset(i), unit);
        ended = ended || unit == 0 || (unit == PADDING && end == name_end::TERMINATOR_OR_PADDING);
    }
}

void store_slot_of_name(u8 *slot, u32 number, u32 count, const u16 *name, u8 checksum,
                        name_end end) {
    store_long_slot(slot, number | (number == count ? SLOT_LAST : 0),
                    name + std::size_t{number - 1} * UNITS_PER_SLOT, checksum, end);
}

u32 load_units(const u8 *slot, u16 *units) {
    for (u32 i = 0; i < UNITS_PER_SLOT; i++) {
        units[i] = load16(slot + slot_unit_offset(i));
        if (units[i] == 0) {
            return i + 1;
        }
    }
    if (load(slot, SLOT_ORDINAL) <= SLOT_LAST) {
        return UNITS_PER_SLOT;
    }
    units[UNITS_PER_SLOT] = 0;
    return UNITS_PER_SLOT + 1;
}

void copy_units(const u8 *slot, s64 position, slot_units which, u16 *name, u32 room) {
    u16 units[UNITS_PER_SLOT + 1];
    u32 count = UNITS_PER_SLOT;
    if (which == slot_units::TO_TERMINATOR) {
        count = load_units(slot, units);
    } else {
        for (u32 i = 0; i < count; i++) {
            units[i] = load16(slot + slot_unit_offset(i));
        }
    }
    for (u32 i = 0; i < count; i++) {
        const s64 at = position + i;
        if (at >= 0 && at < room) {
            name[at] = units[i];
        }
    }
}

void gather_slot(const u8 *slot, u16 *name, u32 room) {
    copy_units(slot, (s64{slot_number(slot)} - 1) * UNITS_PER_SLOT, slot_units::TO_TERMINATOR, name,
               room);
}

void name_assembler::accept(const u8 *slot, u32 index) {
    const u32 number = slot_number(slot);
    const u8 checksum = static_cast<u8>(load(slot, SLOT_CHECKSUM));
    const bool continues = missing_ != 0 && number == missing_ && checksum == checksum_;
    reset();
    if (is_last_slot(slot)) {
        first_slot_ = index;
        checksum_ = checksum;
        missing_ = number <= MAX_LONG_SLOTS ? number : 0;
    } else if (continues) {
        missing_ = number;
    }
    if (missing_ != 0) {
        gather_slot(slot, units_, ROOM);
        missing_--;
        is_whole_ = missing_ == 0;
    }
}

bool name_assembler::belongs_to(const u8 *short_entry) const {
    return is_whole() && checksum_ == checksum_of(short_entry + SHORT_NAME.offset);
}

} // namespace core
