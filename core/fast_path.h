// Fast-open paths: the location of a file's directory entry and a check value, as 16 letters by
// which the ZUQ driver opens the file without a search.

#pragma once

#include "core/slots.h"

namespace core {

inline constexpr u32 FAST_WORD_LETTERS = 8;
inline constexpr u32 FAST_PATH_SIZE = 20; // bytes: "<?>", two words, the terminator

// Stores the value as 8 letters from "@" (0) to "O" (15), the highest four bits first.
void encode_fast_word(char *out, u32 value);

// Stores the path of an entry, which is at `place`.
void store_fast_path(char *path, u32 sector_size, const slot_place &place, const u8 *entry);

} // namespace core
