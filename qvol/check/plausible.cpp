#include "qvol/check/plausible.h"

#include "core/long_name.h"
#include "core/record.h"

#include <algorithm>
#include <array>

namespace qvol {

using core::u32;
using core::u8;

namespace {

constexpr u32 UNDEFINED_ATTRIBUTES = 0xC0;

constexpr std::array<bool, 256> bytes_of_names() {
    std::array<bool, 256> may_be{};
    for (std::size_t byte = ' '; byte < may_be.size(); byte++) {
        may_be[byte] = true;
    }
    for (const char never : {'"', '*', '+', ',', '.', '/', ':', ';', '<', '=', '>', '?', '[', '\\',
                             ']', '|', '\x7F'}) {
        may_be[static_cast<u8>(never)] = false;
    }
    return may_be;
}
constexpr std::array<bool, 256> NAME_BYTES = bytes_of_names();

bool may_be_short_name(const u8 *name) {
    const bool is_dot = std::equal(name, name + core::SHORT_NAME.size, core::DOT_NAME) ||
                        std::equal(name, name + core::SHORT_NAME.size, core::DOT_DOT_NAME);
    const bool is_escape = name[0] == core::NAME_ESCAPED_E5;
    return is_dot || std::all_of(name + (is_escape ? 1 : 0), name + core::SHORT_NAME.size,
                                 [](u8 byte) { return NAME_BYTES[byte]; });
}

bool may_be_entry(const core::volume &on, const u8 *slot) {
    if (core::kind_of(slot) == core::slot_kind::LONG_NAME) {
        const u32 number = core::slot_number(slot);
        return number >= 1 && number <= core::MAX_LONG_SLOTS &&
               core::load(slot, core::SLOT_SYSID) == 0;
    }
    const u32 high = on.is_wide() ? core::load(slot, core::SHORT_START_HIGH) << 16 : 0;
    const u32 start = high | core::load(slot, core::SHORT_START_LOW);
    return core::kind_of(slot) != core::slot_kind::INVALID && may_be_short_name(slot) &&
           (core::load(slot, core::SHORT_ATTR) & UNDEFINED_ATTRIBUTES) == 0 &&
           (start == 0 || on.is_data_cluster(start));
}

} // namespace

slot_votes vote_on(const core::volume &on, std::span<const u8> slots) {
    slot_votes votes;
    for (; slots.size() >= core::DENTRY_SIZE; slots = slots.subspan(core::DENTRY_SIZE)) {
        if (!core::is_free_slot(slots.data())) {
            (may_be_entry(on, slots.data()) ? votes.entries : votes.others)++;
        }
    }
    return votes;
}

} // namespace qvol
