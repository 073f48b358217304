#include "qvol/check/renaming.h"

#include "core/long_name.h"
#include "qvol/check/entry_names.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr std::size_t SHORT_BASE = 8;

void replace_units(std::u16string *name, bool (*is_replaced)(char16_t unit)) {
    std::replace_if(name->begin(), name->end(), is_replaced, u'_');
}

bool is_surrogate(char16_t unit) {
    return unit >= 0xD800 && unit <= 0xDFFF;
}

// With '_' for what a name cannot contain. The slots of a name have space for more units than it
// may have.
std::u16string valid_name(std::u16string name) {
    if (name.size() > core::MAX_NAME_UNITS) {
        name.resize(core::MAX_NAME_UNITS);
    }
    replace_units(&name, [](char16_t unit) {
        return !is_surrogate(unit) && name_problem(std::u16string(u"x") + unit + u"x").has_value();
    });
    while (!name.empty() && (name.back() == u' ' || name.back() == u'.')) {
        name.back() = u'_';
    }
    if (name_problem(name)) {
        replace_units(&name, is_surrogate);
    }
    return name_problem(name) ? u"_" + name : name;
}

// "NAME~2.EXT". A name that fits 8.3 still does.
std::u16string numbered_name(const std::u16string &name, u32 number) {
    const std::string tail = fmt::format("~{}", number);
    const std::size_t end = end_of_stem(name);
    const std::size_t most =
        is_plain_short_name(name) ? SHORT_BASE : core::MAX_NAME_UNITS - (name.size() - end);
    std::u16string stem = name.substr(0, std::min(end, most - std::min(tail.size(), most)));
    if (!stem.empty() && stem.back() >= 0xD800 && stem.back() < 0xDC00) {
        stem.pop_back(); // the first half of a character
    }
    return stem + std::u16string(tail.begin(), tail.end()) + name.substr(end);
}

class renaming {
public:
    explicit renaming(directory *dir) : dir_(*dir) {
        for (const auto &[slot, found] : dir_.entries()) {
            dir_.reserve_short_name(short_name_units(found.alias(), 0));
        }
    }

    void rename(u32 slot) {
        const auto found = dir_.entries().find(slot);
        if (found == dir_.entries().end()) {
            return;
        }
        const entry old = found->second;
        dir_.remove(old);
        entry renamed = dir_.add({.name = unused_name(valid_name(old.name)),
                                  .type = old.type(),
                                  .modified = {},
                                  .alias = usable_alias(old)});
        copy_fields(old, &renamed);
        dir_.update(renamed);
    }

private:
    std::u16string unused_name(const std::u16string &wanted) {
        std::u16string name = wanted;
        while (dir_.find(name) != nullptr || name_problem(name)) {
            name = numbered_name(wanted, ++numbers_[wanted]);
        }
        return name;
    }

    // Programs may know the entry by its short name.
    [[nodiscard]] std::optional<short_name> usable_alias(const entry &old) const {
        const bool is_usable =
            !short_name_problem(old) && dir_.find(short_name_units(old.alias(), 0)) == nullptr;
        return is_usable ? std::optional(old.alias()) : std::nullopt;
    }

    // All but the short name and its case bits.
    static void copy_fields(const entry &old, entry *renamed) {
        const u8 case_bits = renamed->raw[core::SHORT_SYSID.offset];
        std::copy(old.raw.begin() + core::SHORT_ATTR.offset, old.raw.end(),
                  renamed->raw.begin() + core::SHORT_ATTR.offset);
        renamed->raw[core::SHORT_SYSID.offset] = case_bits;
    }

    directory &dir_;
    std::map<std::u16string, u32> numbers_; // the last one, by name
};

} // namespace

void rename_entries(volume &vol, u32 directory_start, const std::vector<u32> &slots) {
    try {
        directory dir(vol.fat(), directory_start);
        renaming names(&dir);
        for (const u32 slot : slots) {
            names.rename(slot);
        }
        vol.commit_additions({&dir});
    } catch (const error &) {
        vol.fat().forget_changes(); // nothing was written: the next check finds the names
    }
}

} // namespace qvol
