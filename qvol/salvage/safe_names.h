// Names of the volume that the host cannot have, or that a directory has twice, made safe.
//
// "_" replaces control characters, slashes and what the encoding does not have, and the dots of "."
// and ".."; an empty name becomes "_". A name that is too long loses the end of its stem. A name
// that another entry of the directory has in any case gets "~1", "~2" and so on before its
// extension.

#pragma once

#include "qvol/host.h"
#include "qvol/names.h"

#include <map>
#include <set>
#include <string>

namespace qvol {

// The names of one directory of the host.
class safe_names {
public:
    explicit safe_names(const name_codec &names) : names_(names) {}

    // No entry gets this name.
    void reserve(std::u16string_view name) {
        taken_.insert(fold_case(name));
    }

    // The name on the host of the next entry.
    [[nodiscard]] std::string choose(std::u16string_view name, const host_directory &into);

private:
    [[nodiscard]] std::u16string safe_text(std::u16string_view name) const;
    [[nodiscard]] std::u16string fitted(std::u16string_view name, u32 number,
                                        const host_directory &into) const;

    const name_codec &names_;
    std::set<std::u16string> taken_;              // folded
    std::map<std::u16string, u32> next_number_{}; // by the folded name without a number
};

} // namespace qvol
