#include "qvol/check/removed.h"

#include "core/long_name.h"

#include <algorithm>

namespace qvol {

namespace {

constexpr u8 UNKNOWN_CHARACTER = '_';

class removed_search {
public:
    removed_search(survey *checked, u32 directory, const slot_space &space)
        : checked_(checked), directory_(directory), space_(space) {}

    void run() {
        for (u32 slot = 0; slot < space_.count(); slot++) {
            if (core::kind_of(space_.slot(slot)) == core::slot_kind::DELETED &&
                leads_to_lost(slot)) {
                add(slot);
            }
        }
    }

private:
    [[nodiscard]] entry entry_at(u32 slot) const {
        return entry_of_slot(space_.slot(slot), slot, {}, space_.is_wide());
    }
    [[nodiscard]] bool is_long_name_slot(u32 slot) const {
        return (core::load(space_.slot(slot), core::SLOT_ATTR) & core::ATTR_LONG_NAME_MASK) ==
               core::ATTR_LONG_NAME;
    }
    [[nodiscard]] u8 checksum_in(u32 slot) const {
        return static_cast<u8>(core::load(space_.slot(slot), core::SLOT_CHECKSUM));
    }

    [[nodiscard]] bool leads_to_lost(u32 slot) const {
        const entry found = entry_at(slot);
        const u32 start = found.start();
        return !is_long_name_slot(slot) && found.type() != kind::LABEL &&
               checked_->table.on().is_data_cluster(start) && !checked_->owners.is_owned(start) &&
               checked_->table.get(start) != core::FAT_FREE;
    }

    void add(u32 slot) {
        const entry found = entry_at(slot);
        lost_entry removed{directory_, found.size(), found.is_directory(), {}};
        const std::optional<u8> first = first_byte(slot);
        removed.first_bytes.emplace_back(space_.location(slot), first.value_or(UNKNOWN_CHARACTER));
        if (first) {
            restore_long_name(slot, &removed);
        }
        checked_->removed.try_emplace(found.start(), std::move(removed));
    }

    // The first byte of the short name that gives the checksum in the long-name slot before it.
    [[nodiscard]] std::optional<u8> first_byte(u32 slot) const {
        if (slot == 0 || !is_long_name_slot(slot - 1)) {
            return std::nullopt;
        }
        short_name name = entry_at(slot).alias();
        for (u32 byte = ' ' + 1; byte < 256; byte++) {
            name[0] = byte == core::NAME_DELETED ? core::NAME_ESCAPED_E5 : static_cast<u8>(byte);
            if (core::checksum_of(name.data()) == checksum_in(slot - 1)) {
                return name[0];
            }
        }
        return std::nullopt;
    }

    // The slots of its long name if they are removed as well.
    void restore_long_name(u32 slot, lost_entry *removed) const {
        const auto belongs = [&](u32 number) {
            const u32 at = slot - number;
            return number <= slot && is_long_name_slot(at) &&
                   checksum_in(at) == checksum_in(slot - 1) &&
                   space_.slot(at)[0] == core::NAME_DELETED;
        };
        for (u32 number = 1; number <= core::MAX_LONG_SLOTS && belongs(number); number++) {
            const u32 mark = belongs(number + 1) ? 0 : core::SLOT_LAST;
            removed->first_bytes.emplace_back(space_.location(slot - number),
                                              static_cast<u8>(number | mark));
        }
    }

    survey *checked_;
    u32 directory_;
    const slot_space &space_;
};

} // namespace

void find_removed_entries(survey *checked, u32 directory, const slot_space &space) {
    removed_search(checked, directory, space).run();
}

} // namespace qvol
