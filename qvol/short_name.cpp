#include "qvol/short_name.h"

#include "core/layout.h"

#include <algorithm>
#include <cstdio>

#include <fmt/core.h>

namespace qvol {

using core::u32;
using core::u8;

namespace {

constexpr std::size_t BASE_SIZE = 8;
constexpr std::size_t EXTENSION_SIZE = core::SHORT_NAME.size - BASE_SIZE;
constexpr u32 LAST_TAIL = 1023; // as the library counts
constexpr std::u16string_view PUNCTUATION = u"$%'-_@~`!(){}^#&";

constexpr char16_t CODE_PAGE_437[] =
    u"ÇüéâäàåçêëèïîìÄÅÉæÆôöòûùÿÖÜ¢£¥₧ƒáíóúñÑªº¿⌐¬½¼¡«»░▒▓│┤╡╢╖╕╣║╗╝╜╛┐"
    u"└┴┬├─┼╞╟╚╔╩╦╠═╬╧╨╤╥╙╘╒╓╫╪┘┌█▄▌▐▀αßΓπΣσµτΦΘΩδ∞φε∩≡±≥≤⌠⌡÷≈°∙·√ⁿ²■\u00A0";
static_assert(sizeof CODE_PAGE_437 / sizeof CODE_PAGE_437[0] == 128 + 1);

bool is_short_character(char16_t unit) {
    return (unit >= u'A' && unit <= u'Z') || (unit >= u'0' && unit <= u'9') ||
           PUNCTUATION.find(unit) != std::u16string_view::npos;
}

char16_t ascii_upper(char16_t unit) {
    return unit >= u'a' && unit <= u'z' ? static_cast<char16_t>(unit - u'a' + u'A') : unit;
}

// Writes one half of a short name. Returns true if it is the whole text, apart from case.
bool fill_half(std::u16string_view text, u8 *out, std::size_t size) {
    bool is_exact = true;
    std::size_t used = 0;
    for (const char16_t unit : text) {
        if (used == size || unit == u' ' || unit == u'.') {
            is_exact = false;
            continue;
        }
        const char16_t upper = ascii_upper(unit);
        is_exact = is_exact && is_short_character(upper);
        out[used++] = is_short_character(upper) ? static_cast<u8>(upper) : u8{'_'};
    }
    return is_exact;
}

std::size_t base_length(const short_name &name) {
    const auto *const base_end = name.begin() + BASE_SIZE;
    return static_cast<std::size_t>(std::find(name.begin(), base_end, ' ') - name.begin());
}

// The name with its base cut to `length` bytes.
short_name cut_base(const short_name &name, std::size_t length) {
    short_name cut = name;
    std::fill(cut.begin() + static_cast<std::ptrdiff_t>(std::min(length, BASE_SIZE)),
              cut.begin() + BASE_SIZE, u8{' '});
    return cut;
}

short_name append_to_base(const short_name &name, std::string_view text) {
    short_name result = name;
    std::copy(text.begin(), text.end(),
              result.begin() + static_cast<std::ptrdiff_t>(base_length(name)));
    return result;
}

u32 hash_of(std::u16string_view name) {
    u32 hash = 2166136261; // FNV-1a
    for (const char16_t unit : name) {
        for (const u32 byte : {unit & 0xFFU, static_cast<u32>(unit) >> 8}) {
            hash = (hash ^ byte) * 16777619;
        }
    }
    return hash;
}

char16_t decoded(u8 byte, bool is_lower) {
    if (byte >= 0x80) {
        return CODE_PAGE_437[byte - 0x80];
    }
    return is_lower && byte >= 'A' && byte <= 'Z' ? static_cast<char16_t>(byte - 'A' + 'a') : byte;
}

std::u16string decoded_half(const u8 *bytes, std::size_t size, bool is_lower) {
    while (size > 0 && bytes[size - 1] == ' ') {
        size--;
    }
    std::u16string text;
    for (std::size_t i = 0; i < size; i++) {
        text.push_back(decoded(bytes[i], is_lower));
    }
    return text;
}

} // namespace

short_form short_form_of(std::u16string_view name) {
    short_form form{};
    form.name.fill(' ');
    const std::size_t first = std::min(name.find_first_not_of(u'.'), name.size());
    const std::u16string_view body = name.substr(first);
    const std::size_t dot = body.rfind(u'.');
    const bool has_extension = dot != std::u16string_view::npos;
    const bool fits_base =
        fill_half(has_extension ? body.substr(0, dot) : body, form.name.data(), BASE_SIZE);
    const bool fits_extension =
        !has_extension ||
        fill_half(body.substr(dot + 1), form.name.data() + BASE_SIZE, EXTENSION_SIZE);
    form.is_exact =
        fits_base && fits_extension && first == 0 && !(has_extension && body.back() == u'.');
    if (form.name[0] == ' ') {
        form.name[0] = '_';
        form.is_exact = false;
    }
    return form;
}

std::u16string short_name_units(const short_name &name, u8 case_bits) {
    short_name bytes = name;
    if (bytes[0] == core::NAME_ESCAPED_E5) {
        bytes[0] = core::NAME_DELETED;
    }
    std::u16string text =
        decoded_half(bytes.data(), BASE_SIZE, (case_bits & core::CASE_LOWER_BASE) != 0);
    const std::u16string extension = decoded_half(bytes.data() + BASE_SIZE, EXTENSION_SIZE,
                                                  (case_bits & core::CASE_LOWER_EXTENSION) != 0);
    if (!extension.empty()) {
        text += u'.' + extension;
    }
    return text.empty() ? std::u16string(core::SHORT_NAME.size, u' ') : text;
}

std::optional<cased_short_name> cased_short_name_of(std::u16string_view name) {
    const short_form form = short_form_of(name);
    for (const u32 bits : {0U, core::CASE_LOWER_BASE, core::CASE_LOWER_EXTENSION,
                           core::CASE_LOWER_BASE | core::CASE_LOWER_EXTENSION}) {
        const u8 case_bits = static_cast<u8>(bits);
        if (form.is_exact && short_name_units(form.name, case_bits) == name) {
            return cased_short_name{form.name, case_bits};
        }
    }
    return std::nullopt;
}

void short_name_set::reserve(std::u16string_view name) {
    const short_form form = short_form_of(name);
    if (form.is_exact) {
        reserved_.insert(form.name);
    }
}

// Tries tails of `digits` digits. Stores the next tail for each cut stem, so stems that are equal
// when cut share it.
bool short_name_set::choose_tail(const short_name &stem, u32 digits, short_name *chosen) {
    constexpr u32 POWERS[] = {1, 10, 100, 1000, 10000};
    const short_name cut = cut_base(stem, BASE_SIZE - 1 - digits);
    short_name key = cut;
    key[BASE_SIZE - 1] = static_cast<u8>(digits);
    u32 &next = next_tail_.try_emplace(key, POWERS[digits - 1]).first->second;
    for (; next < POWERS[digits] && next <= LAST_TAIL; next++) {
        *chosen = append_to_base(cut, fmt::format("~{}", next));
        if (is_free(*chosen)) {
            return true;
        }
    }
    return false;
}

short_name short_name_set::choose(std::u16string_view name) {
    const short_form form = short_form_of(name);
    if (form.is_exact && !taken_.contains(form.name)) {
        return form.name;
    }
    short_name chosen{};
    for (u32 digits = 1; digits <= 4; digits++) {
        if (choose_tail(form.name, digits, &chosen)) {
            return chosen;
        }
    }
    constexpr std::size_t STEM_LETTERS = 2;
    const short_name stem = cut_base(form.name, STEM_LETTERS);
    for (u32 hash = hash_of(name);; hash = hash * 16777619 + 1) {
        chosen = append_to_base(stem, fmt::format("{:04X}~1", hash & 0xFFFF));
        for (u8 digit = '1'; digit <= '9'; digit++) {
            chosen[base_length(chosen) - 1] = digit;
            if (is_free(chosen)) {
                return chosen;
            }
        }
    }
}

} // namespace qvol
