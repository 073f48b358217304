// Short names: the 8.3 name that every entry has in addition to its long name.
//
// A name that fits 8.3 apart from its case gets its exact short form. Any other name gets a numeric
// tail, ~1 to ~1023. After these the base is its first letters and four digits of a hash of the
// long name, so thousands of similar names fit into one directory.

#pragma once

#include "core/bytes.h"

#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace qvol {

using short_name = std::array<core::u8, 11>;

// The 8.3 form of a long name.
struct short_form {
    short_name name;
    bool is_exact; // equal to the long name apart from case: needs no tail
};

[[nodiscard]] short_form short_form_of(std::u16string_view name);

// The text of a stored short name; `case_bits` is byte 12 of its entry. Bytes from 0x80 are code
// page 437. A blank name is returned as 11 spaces.
[[nodiscard]] std::u16string short_name_units(const short_name &name, core::u8 case_bits);

// A short entry that stores a name without long-name slots: 8.3 in ASCII, one case for each half.
struct cased_short_name {
    short_name name;
    core::u8 case_bits;
};

// Nothing if the name needs long-name slots.
[[nodiscard]] std::optional<cased_short_name> cased_short_name_of(std::u16string_view name);

// The short names of one directory; chooses new ones in a time that does not depend on their
// number.
class short_name_set {
public:
    void insert(const short_name &name) {
        taken_.insert(name);
    }
    void erase(const short_name &name) {
        taken_.erase(name);
    }
    [[nodiscard]] bool contains(const short_name &name) const {
        return taken_.contains(name);
    }

    // Prevents the exact short form of a name that will be added from being chosen for another
    // name.
    void reserve(std::u16string_view name);

    // Returns an unused short name for the long name. Does not insert it.
    [[nodiscard]] short_name choose(std::u16string_view name);

private:
    [[nodiscard]] bool is_free(const short_name &name) const {
        return !taken_.contains(name) && !reserved_.contains(name);
    }
    [[nodiscard]] bool choose_tail(const short_name &stem, core::u32 digits, short_name *chosen);

    std::set<short_name> taken_;
    std::set<short_name> reserved_;
    std::map<short_name, core::u32> next_tail_; // by the name with the first tail of as many digits
};

} // namespace qvol
