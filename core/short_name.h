// Short names of 11 bytes: their characters, their checksum, the numeric tails by which similar
// ones differ.

#pragma once

#include "core/layout.h"

namespace core {

inline constexpr u32 SHORT_BASE_SIZE = 8; // bytes of the base; the extension follows
inline constexpr u32 SHORT_EXTENSION_SIZE = SHORT_NAME.size - SHORT_BASE_SIZE;

// ---- characters ----

// Letters are those of ASCII.
[[nodiscard]] constexpr bool is_upper(u8 c) {
    return c >= 'A' && c <= 'Z';
}
[[nodiscard]] constexpr bool is_lower(u8 c) {
    return c >= 'a' && c <= 'z';
}
[[nodiscard]] constexpr u8 to_upper(u8 c) {
    return is_lower(c) ? static_cast<u8>(c - 'a' + 'A') : c;
}
[[nodiscard]] constexpr u8 to_lower(u8 c) {
    return is_upper(c) ? static_cast<u8>(c - 'A' + 'a') : c;
}

// Characters that no name has, long or short.
inline constexpr char FORBIDDEN_IN_NAMES[] = "\\/:*?\"<>|";

// Of ASCII, a short name has upper-case letters, digits, these characters, and spaces as padding.
inline constexpr char SHORT_NAME_PUNCTUATION[] = "$%'-_@~`!(){}^#&";
[[nodiscard]] bool is_short_name_character(u32 c);

// ---- building ----

// Fills the base or the extension of a short name from a text, which may be too long. Spaces and
// dots are dropped; `stored` returns the byte for any other character, or 0 if '_' replaces it.
// Returns false if a character was dropped, replaced or cut off.
template <typename Text, typename Stored>
[[nodiscard]] bool fill_half(const Text &text, u8 *half, u32 size, Stored stored) {
    bool is_exact = true;
    u32 filled = 0;
    for (const auto c : text) {
        if (filled == size) {
            return false;
        }
        if (c == ' ' || c == '.') {
            is_exact = false;
            continue;
        }
        const u8 byte = stored(c);
        is_exact = is_exact && byte != 0;
        half[filled++] = byte != 0 ? byte : u8{'_'};
    }
    return is_exact;
}

// Checksum of a short name of 11 bytes that its long-name slots carry.
[[nodiscard]] u8 checksum_of(const u8 *short_name);

// ---- tails ----

// The numeric tails in use among the names of one directory that are otherwise like one name.
class tail_set {
public:
    static constexpr u32 END = 1024; // tails are below this; 0 is never free

    // Marks the tail of a short entry that has the prefix of `name`. A tilde without digits after
    // it counts as tail 0.
    void mark(const u8 *entry, const u8 *name);

    [[nodiscard]] u32 lowest_free() const; // END if all are in use

private:
    static constexpr u32 WORD_BITS = 32;

    u32 words_[END / WORD_BITS] = {1};
};

// Writes "~n" after the base of a short name, or over its end.
void write_tail(u8 *name, u32 n);

} // namespace core
