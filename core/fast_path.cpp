#include "core/fast_path.h"

namespace core {

namespace {

constexpr char PREFIX[] = "<?>";
constexpr u32 PREFIX_LENGTH = sizeof PREFIX - 1;
static_assert(PREFIX_LENGTH + 2 * FAST_WORD_LETTERS + 1 == FAST_PATH_SIZE);

// Position of an entry on the volume, in entries; modulo 2^32 bytes.
u32 entry_number(u32 sector_size, const slot_place &place) {
    return (sector_size * place.sector + place.offset) / DENTRY_SIZE;
}

// Intentional: the halves of the cluster number are swapped.
u32 check_value(const u8 *entry) {
    const u32 cluster = load(entry, SHORT_START_LOW) << 16 | load(entry, SHORT_START_HIGH);
    return cluster ^ load(entry, SHORT_FILE_SIZE);
}

} // namespace

void encode_fast_word(char *out, u32 value) {
    constexpr u32 LETTER_BITS = 4;
    constexpr u32 FIRST_LETTER = '@';
    constexpr u32 LETTER_MASK = (1U << LETTER_BITS) - 1;
    for (u32 i = 0; i < FAST_WORD_LETTERS; i++) {
        const u32 shift = (FAST_WORD_LETTERS - 1 - i) * LETTER_BITS;
        out[i] = static_cast<char>(FIRST_LETTER | (value >> shift & LETTER_MASK));
    }
}

void store_fast_path(char *path, u32 sector_size, const slot_place &place, const u8 *entry) {
    std::memcpy(path, PREFIX, PREFIX_LENGTH);
    encode_fast_word(path + PREFIX_LENGTH, entry_number(sector_size, place));
    encode_fast_word(path + PREFIX_LENGTH + FAST_WORD_LETTERS, check_value(entry));
    path[FAST_PATH_SIZE - 1] = '\0';
}

} // namespace core
