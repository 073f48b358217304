// A few sectors with the content that the medium has: those that were read or written last.

#pragma once

#include "core/geometry.h"

namespace core {

// Only single sectors enter it: longer transfers are data, which is not needed again. The owner
// reports every write. Takes no memory from the heap.
class sector_cache {
public:
    // The content of a sector of `size` bytes, or null.
    [[nodiscard]] const u8 *find(u64 sector, u32 size);

    // Stores the content of a sector of `size` bytes in place of the one that was not used for the
    // longest time. Sectors of another size are forgotten.
    void store(u64 sector, const u8 *content, u32 size);

    void forget(u64 first, u64 count, u32 size);
    void clear();

private:
    static constexpr u32 SECTORS = 8;

    struct slot {
        u64 sector;
        u32 used; // time of the last use; 0: empty
        u8 content[MAX_SECTOR_SIZE];
    };

    slot slots_[SECTORS] = {};
    u32 size_ = 0; // bytes of each sector
    u32 time_ = 0;
};

} // namespace core
