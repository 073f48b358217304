// Short names of 11 bytes: the numeric tails by which similar ones differ.

#pragma once

#include "core/layout.h"

namespace core {

inline constexpr u32 SHORT_BASE_SIZE = 8; // bytes of the base; the extension follows

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
