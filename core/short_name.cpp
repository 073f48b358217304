#include "core/short_name.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>

namespace core {

bool is_short_name_character(u32 c) {
    const bool is_ascii = c < 0x80;
    const u8 byte = static_cast<u8>(c);
    return is_ascii && (is_upper(byte) || (byte >= '0' && byte <= '9') ||
                        (byte != 0 && std::strchr(SHORT_NAME_PUNCTUATION, byte) != nullptr));
}

u8 checksum_of(const u8 *short_name) {
    u8 sum = 0;
    for (u32 i = 0; i < SHORT_NAME.size; i++) {
        sum = static_cast<u8>(std::rotr(sum, 1) + short_name[i]);
    }
    return sum;
}

void tail_set::mark(const u8 *entry, const u8 *name) {
    u32 tilde = 0;
    while (tilde < SHORT_BASE_SIZE && entry[tilde] != '~' && entry[tilde] != 0) {
        tilde++;
    }
    if (tilde == SHORT_BASE_SIZE || entry[tilde] == 0 || std::memcmp(entry, name, tilde) != 0) {
        return;
    }
    u32 number = 0;
    for (u32 i = tilde + 1; i < SHORT_BASE_SIZE; i++) {
        if (entry[i] >= '0' && entry[i] <= '9') {
            number = number * 10 + (entry[i] - '0');
        }
    }
    if (number < END) {
        words_[number / WORD_BITS] |= 1U << (number % WORD_BITS);
    }
}

u32 tail_set::lowest_free() const {
    for (u32 word = 0; word < END / WORD_BITS; word++) {
        if (words_[word] != ~0U) {
            return word * WORD_BITS + static_cast<u32>(std::countr_one(words_[word]));
        }
    }
    return END;
}

void write_tail(u8 *name, u32 n) {
    char tail[7] = {};
    const u32 length =
        static_cast<u32>(std::snprintf(tail, sizeof tail, "%c%d", '~', static_cast<int>(n)));
    u32 position = 0;
    while (position < SHORT_BASE_SIZE - length && name[position] != ' ') {
        position++;
    }
    std::memcpy(name + position, tail, length);
}

} // namespace core
