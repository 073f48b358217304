// Short names: the 8.3 form that every entry has beside its long name.
//
// A name that 8.3 holds in one case keeps that form, so that it is found by it. Any other gets a
// numeric tail, ~1 to ~1023, and beyond those a base made of its first letters and a few digits of
// a hash of the long name: thousands of like names fit into one directory.

#pragma once

#include "fat/bytes.h"

#include <array>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace qvol {

using short_name = std::array<fat::u8, 11>;

// What 8.3 makes of a long name.
struct short_form {
    short_name name;
    bool is_exact; // nothing but the case was lost: no tail is needed
};

[[nodiscard]] short_form short_form_of(std::u16string_view name);

// The text of a stored short name; `case_bits` is byte 12 of its entry. Bytes from 0x80 on are of
// code page 437. A blank name is given as its blanks.
[[nodiscard]] std::u16string short_name_units(const short_name &name, fat::u8 case_bits);

// A short entry that holds a name with nothing else: 8.3 in ASCII, each half in one case.
struct cased_short_name {
    short_name name;
    fat::u8 case_bits;
};

// Nothing where the name needs a long one.
[[nodiscard]] std::optional<cased_short_name> cased_short_name_of(std::u16string_view name);

// The short names of one directory, and the choice of new ones. Choosing takes no longer in a large
// directory than in a small one.
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

    // Keeps the exact short form of a name that is to come from becoming another name's tail.
    void reserve(std::u16string_view name);

    // A short name for the long one that no other has; it is not inserted.
    [[nodiscard]] short_name choose(std::u16string_view name);

private:
    [[nodiscard]] bool is_free(const short_name &name) const {
        return !taken_.contains(name) && !reserved_.contains(name);
    }
    [[nodiscard]] bool choose_tail(const short_name &stem, fat::u32 digits, short_name *chosen);

    std::set<short_name> taken_;
    std::set<short_name> reserved_;
    std::map<short_name, fat::u32> next_tail_; // by the stem as the tail cuts it
};

} // namespace qvol
