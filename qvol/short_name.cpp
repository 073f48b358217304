#include "qvol/short_name.h"

#include "core/short_name.h"

#include <algorithm>
#include <cstdio>

#include <fmt/core.h>

namespace qvol {

using core::u32;
using core::u8;

namespace {

using core::SHORT_BASE_SIZE;
using core::SHORT_EXTENSION_SIZE;

constexpr char16_t CODE_PAGE_437[] =
    u"ÇüéâäàåçêëèïîìÄÅÉæÆôöòûùÿÖÜ¢£¥₧ƒáíóúñÑªº¿⌐¬½¼¡«»░▒▓│┤╡╢╖╕╣║╗╝╜╛┐"
    u"└┴┬├─┼╞╟╚╔╩╦╠═╬╧╨╤╥╙╘╒╓╫╪┘┌█▄▌▐▀αßΓπΣσµτΦΘΩδ∞φε∩≡±≥≤⌠⌡÷≈°∙·√ⁿ²■\u00A0";
static_assert(sizeof CODE_PAGE_437 / sizeof CODE_PAGE_437[0] == 128 + 1);

// The byte of a unit in a short name, or 0.
u8 stored_byte(char16_t unit) {
    const u8 upper = unit < 0x80 ? core::to_upper(static_cast<u8>(unit)) : u8{0};
    return core::is_short_name_character(upper) ? upper : u8{0};
}

// The first letters of a base, followed by the digits of a hash.
short_name with_hash(const short_name &name, u32 hash) {
    constexpr std::ptrdiff_t LETTERS = 2;
    short_name result = name;
    u8 *const base = result.data();
    u8 *const digits = std::find(base, base + LETTERS, u8{' '});
    std::fill(digits, base + SHORT_BASE_SIZE, u8{' '});
    const std::string text = fmt::format("{:04X}", hash & 0xFFFF);
    std::copy(text.begin(), text.end(), digits);
    return result;
}

short_name with_tail(const short_name &name, u32 tail) {
    short_name result = name;
    core::write_tail(result.data(), tail);
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
    return is_lower ? core::to_lower(byte) : byte;
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
        core::fill_half(body.substr(0, dot), form.name.data(), SHORT_BASE_SIZE, stored_byte);
    const bool fits_extension =
        !has_extension || core::fill_half(body.substr(dot + 1), form.name.data() + SHORT_BASE_SIZE,
                                          SHORT_EXTENSION_SIZE, stored_byte);
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
        decoded_half(bytes.data(), SHORT_BASE_SIZE, (case_bits & core::CASE_LOWER_BASE) != 0);
    const std::u16string extension =
        decoded_half(bytes.data() + SHORT_BASE_SIZE, SHORT_EXTENSION_SIZE,
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

// Tries tails of `digits` digits. Stores the next tail by the name with the first of them: stems
// that are equal where it leaves them share it.
bool short_name_set::choose_tail(const short_name &stem, u32 digits, short_name *chosen) {
    constexpr u32 POWERS[] = {1, 10, 100, 1000, 10000};
    const u32 first = POWERS[digits - 1];
    u32 &next = next_tail_.try_emplace(with_tail(stem, first), first).first->second;
    for (; next < POWERS[digits] && next < core::tail_set::END; next++) {
        *chosen = with_tail(stem, next);
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
    for (u32 hash = hash_of(name);; hash = hash * 16777619 + 1) {
        for (u32 tail = 1; tail <= 9; tail++) {
            chosen = with_tail(with_hash(form.name, hash), tail);
            if (is_free(chosen)) {
                return chosen;
            }
        }
    }
}

} // namespace qvol
