#include "qvol/slots.h"

#include <algorithm>

namespace qvol {

namespace {

constexpr u32 MAX_ORDINAL = 20; // slots of 13 units, for names of up to 255 units

std::u16string units_of_slot(const u8 *slot) {
    std::u16string units;
    for (u32 unit = 0; unit < core::UNITS_PER_SLOT; unit++) {
        const u16 value = core::load16(slot + core::slot_unit_offset(unit));
        if (value == 0) {
            break;
        }
        units.push_back(value);
    }
    return units;
}

std::u16string label_text(const short_name &label) {
    std::u16string text(label.begin(), label.end());
    text.erase(text.find_last_not_of(u' ') + 1);
    return text;
}

std::u16string short_text(const entry &shown) {
    return shown.type() == kind::LABEL
               ? label_text(shown.alias())
               : short_name_units(shown.alias(),
                                  static_cast<u8>(core::load(shown.raw.data(), core::SHORT_SYSID)));
}

} // namespace

bool is_removed(const u8 *slot) {
    return slot[core::SHORT_NAME.offset] == core::NAME_DELETED;
}

bool is_long_name_slot(const u8 *slot) {
    return (core::load(slot, core::SHORT_ATTR) & core::ATTR_LONG_NAME_MASK) == core::ATTR_LONG_NAME;
}

bool is_entry(const u8 *slot) {
    return (core::load(slot, core::SHORT_ATTR) & core::ATTR_KIND_MASK) != core::ATTR_KIND_MASK;
}

void name_assembler::accept(const u8 *slot, u32 index) {
    const u32 ordinal = core::load(slot, core::SLOT_ORDINAL);
    const u8 slot_checksum = static_cast<u8>(core::load(slot, core::SLOT_CHECKSUM));
    if ((ordinal & core::SLOT_LAST) != 0) {
        reset();
        first_slot = index;
        checksum = slot_checksum;
        missing = ordinal & ~core::SLOT_LAST;
        missing = missing <= MAX_ORDINAL ? missing : 0;
    } else if (missing == 0 || ordinal != missing || slot_checksum != checksum) {
        reset();
        return;
    }
    if (missing == 0) {
        return;
    }
    units.insert(0, units_of_slot(slot));
    missing--;
}

bool name_assembler::belongs_to(const u8 *short_entry) const {
    return is_whole() && checksum == core::checksum_of(short_entry);
}

entry entry_of_slot(const u8 *slot, u32 index, const name_assembler &assembler, bool is_wide) {
    entry found;
    found.is_wide = is_wide;
    std::copy_n(slot, core::DENTRY_SIZE, found.raw.begin());
    found.slot = index;
    found.has_long_name = assembler.belongs_to(slot) && found.type() != kind::LABEL;
    found.first_slot = found.has_long_name ? assembler.first_slot : index;
    found.name = found.has_long_name ? assembler.units : short_text(found);
    return found;
}

} // namespace qvol
