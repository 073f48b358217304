#include "qvol/salvage/removed_entries.h"

#include "core/record.h"
#include "qvol/slots.h"

#include <algorithm>
#include <cstring>

namespace qvol {

namespace {

constexpr u8 LOST_CHARACTER = '_';
constexpr u32 RESERVED_ATTRIBUTES = 0xC0;

bool is_removed_long_slot(const u8 *slot) {
    return slot[0] == core::NAME_DELETED &&
           (core::load(slot, core::SHORT_ATTR) & core::ATTR_LONG_NAME_MASK) == core::ATTR_LONG_NAME;
}

// Appends the units of a slot. Returns whether it has the end of the name.
bool append_units(const u8 *slot, std::u16string *name) {
    for (u32 unit = 0; unit < core::UNITS_PER_SLOT; unit++) {
        const u16 value = core::load16(slot + core::slot_unit_offset(unit));
        if (value == 0) {
            return true;
        }
        name->push_back(static_cast<char16_t>(value));
    }
    return false;
}

// The first byte of a short name with this checksum.
u8 first_byte_for(short_name name, u32 checksum) {
    for (u32 byte = 0; byte < 256; byte++) {
        name[0] = static_cast<u8>(byte);
        if (core::checksum_of(name.data()) == checksum) {
            return name[0];
        }
    }
    return 0; // not reached: every checksum has a first byte
}

bool is_name_byte(u8 byte) {
    return byte > ' ' && !core::is_lower(byte) &&
           std::strchr(core::FORBIDDEN_IN_NAMES, byte) == nullptr;
}

// Short names begin with the first letter or digit of their long name if that is one.
bool may_begin(u8 first, char16_t character) {
    const bool is_plain = character < 0x80 && std::isalnum(static_cast<int>(character)) != 0;
    return (is_name_byte(first) || first == core::NAME_ESCAPED_E5) &&
           (!is_plain || first == core::to_upper(static_cast<u8>(character)));
}

bool has_valid_name(const u8 *slot) {
    return std::none_of(slot + 1, slot + core::SHORT_NAME.size,
                        [](u8 byte) { return byte != ' ' && !is_name_byte(byte); });
}

// A span of slots that ends with a removed short entry.
class removed_slots {
public:
    removed_slots(std::span<const u8> slots, u32 index) : slots_(slots), index_(index) {}

    // The long name whose slots precede the entry, if their checksum agrees with the short name.
    void restore_name(removed_entry *found) const {
        std::u16string name;
        const u32 first = gather(&name, &found->is_end_unknown);
        const u8 byte = first == index_
                            ? u8{0}
                            : first_byte_for(found->dentry.alias(),
                                             core::load(slot(first), core::SLOT_CHECKSUM));
        if (name.empty() || !may_begin(byte, name.front())) {
            found->is_first_lost = true;
            found->is_end_unknown = false;
            return;
        }
        found->dentry.raw[0] = byte;
        found->dentry.name = std::move(name);
        found->dentry.has_long_name = true;
        found->dentry.first_slot = first;
    }

private:
    [[nodiscard]] const u8 *slot(u32 index) const {
        return &slots_[std::size_t{index} * core::DENTRY_SIZE];
    }

    // Returns the first slot of the name.
    u32 gather(std::u16string *name, bool *is_end_unknown) const {
        *is_end_unknown = false;
        for (u32 first = index_; index_ - first < core::MAX_LONG_SLOTS; first--) {
            const bool continues = first > 0 && is_removed_long_slot(slot(first - 1)) &&
                                   has_checksum_of_next(first - 1);
            if (!continues) {
                *is_end_unknown = true;
                return first;
            }
            if (append_units(slot(first - 1), name)) {
                return first - 1;
            }
        }
        return index_ - core::MAX_LONG_SLOTS;
    }

    [[nodiscard]] bool has_checksum_of_next(u32 index) const {
        return index + 1 == index_ || core::load(slot(index), core::SLOT_CHECKSUM) ==
                                          core::load(slot(index + 1), core::SLOT_CHECKSUM);
    }

    std::span<const u8> slots_;
    u32 index_;
};

} // namespace

std::vector<removed_entry> removed_entries(std::span<const u8> slots, bool is_wide) {
    std::vector<removed_entry> found;
    const u32 count = static_cast<u32>(slots.size() / core::DENTRY_SIZE);
    for (u32 index = 0; index < count; index++) {
        // cppcheck-suppress redundantInitialization; it takes the variables of all rounds for one
        const u8 *slot = slots.data() + std::size_t{index} * core::DENTRY_SIZE;
        if (core::kind_of(slot) == core::slot_kind::UNUSED) {
            break;
        }
        if (core::kind_of(slot) != core::slot_kind::DELETED || is_removed_long_slot(slot) ||
            !has_valid_name(slot)) {
            continue;
        }
        std::array<u8, core::DENTRY_SIZE> raw{};
        std::copy_n(slot, raw.size(), raw.begin());
        raw[0] = LOST_CHARACTER;
        if (core::is_named_kind(core::kind_of(raw.data()))) {
            removed_entry one{entry_of_slot(raw.data(), index, core::name_assembler(), is_wide)};
            removed_slots(slots, index).restore_name(&one);
            found.push_back(std::move(one));
        }
    }
    return found;
}

std::vector<removed_entry> remaining_entries(std::span<const u8> slots, bool is_wide) {
    std::vector<removed_entry> found;
    core::name_assembler name;
    const u32 count = static_cast<u32>(slots.size() / core::DENTRY_SIZE);
    for (u32 index = 0; index < count; index++) {
        // cppcheck-suppress redundantInitialization; it takes the variables of all rounds for one
        const u8 *slot = slots.data() + std::size_t{index} * core::DENTRY_SIZE;
        const core::slot_kind kind = core::kind_of(slot);
        if (kind == core::slot_kind::UNUSED) {
            break;
        }
        if (kind == core::slot_kind::LONG_NAME) {
            name.accept(slot, index);
            continue;
        }
        if (core::is_named_kind(kind)) {
            removed_entry one{entry_of_slot(slot, index, name, is_wide)};
            if (!one.dentry.is_dot()) {
                found.push_back(std::move(one));
            }
        }
        name.reset();
    }
    return found;
}

bool are_slots(std::span<const u8> bytes, bool *ends) {
    *ends = false;
    for (; bytes.size() >= core::DENTRY_SIZE; bytes = bytes.subspan(core::DENTRY_SIZE)) {
        const core::slot_kind kind = core::kind_of(bytes.data());
        if (kind == core::slot_kind::UNUSED) {
            *ends = true;
            return true;
        }
        const u32 attributes = core::load(bytes.data(), core::SHORT_ATTR);
        if (kind == core::slot_kind::INVALID || (attributes & RESERVED_ATTRIBUTES) != 0) {
            return false;
        }
    }
    return true;
}

} // namespace qvol
