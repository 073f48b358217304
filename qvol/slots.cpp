#include "qvol/slots.h"

#include <algorithm>

namespace qvol {

namespace {

std::u16string text_of(const u16 *units) {
    std::u16string text;
    while (*units != 0) {
        text.push_back(*units++);
    }
    return text;
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

bool is_entry(const u8 *slot) {
    const core::slot_kind kind = core::kind_of(slot);
    return core::is_named_kind(kind) || kind == core::slot_kind::LABEL;
}

entry entry_of_slot(const u8 *slot, u32 index, const core::name_assembler &assembler,
                    bool is_wide) {
    entry found;
    found.is_wide = is_wide;
    std::copy_n(slot, core::DENTRY_SIZE, found.raw.begin());
    found.slot = index;
    found.has_long_name = assembler.belongs_to(slot) && found.type() != kind::LABEL;
    found.first_slot = found.has_long_name ? assembler.first_slot() : index;
    found.name = found.has_long_name ? text_of(assembler.units()) : short_text(found);
    return found;
}

} // namespace qvol
