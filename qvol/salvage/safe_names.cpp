#include "qvol/salvage/safe_names.h"

#include "qvol/extraction.h"

#include <algorithm>

namespace qvol {

namespace {

constexpr char16_t REPLACEMENT = u'_';

bool is_high_surrogate(char16_t unit) {
    return unit >= 0xD800 && unit < 0xDC00;
}

bool is_safe(const name_codec &names, std::u16string_view name) {
    return !extraction_problem(name) && host_name_of(names, name);
}

std::u16string number_text(u32 number) {
    const std::string digits = number == 0 ? "" : "~" + std::to_string(number);
    return {digits.begin(), digits.end()};
}

} // namespace

std::u16string safe_names::safe_text(std::u16string_view name) const {
    if (is_safe(names_, name)) {
        return std::u16string(name);
    }
    if (name.empty() || name == u"." || name == u"..") {
        return std::u16string(std::max<std::size_t>(name.size(), 1), REPLACEMENT);
    }
    std::u16string safe;
    while (!name.empty()) {
        std::u16string_view character = name.substr(0, is_high_surrogate(name[0]) ? 2 : 1);
        const bool is_kept = character == u"." || is_safe(names_, character);
        if (!is_kept) {
            character = character.substr(0, 1);
        }
        safe += is_kept ? character : std::u16string_view(&REPLACEMENT, 1);
        name.remove_prefix(character.size());
    }
    return safe;
}

std::u16string safe_names::fitted(std::u16string_view name, u32 number,
                                  const host_directory &into) const {
    const std::size_t dot = end_of_stem(name);
    std::u16string stem(name.substr(0, dot));
    const std::u16string end = number_text(number) + std::u16string(name.substr(dot));
    const auto is_usable = [&] {
        const std::optional<std::string> host = host_name_of(names_, stem + end);
        return host && !into.is_too_long(*host); // no value: half of a surrogate pair is left
    };
    while (!stem.empty() && !is_usable()) {
        stem.pop_back();
    }
    return stem + end;
}

std::string safe_names::choose(std::u16string_view name, const host_directory &into) {
    const std::u16string safe = safe_text(name);
    u32 &number = next_number_[fold_case(fitted(safe, 0, into))];
    std::u16string chosen;
    do {
        chosen = fitted(safe, number++, into);
    } while (!taken_.insert(fold_case(chosen)).second);
    return host_name_of(names_, chosen).value_or("_");
}

} // namespace qvol
