#include "core/sector_cache.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace core {

const u8 *sector_cache::find(u64 sector, u32 size) {
    if (size != size_) {
        return nullptr;
    }
    for (slot &known : slots_) {
        if (known.used != 0 && known.sector == sector) {
            known.used = ++time_;
            return known.content;
        }
    }
    return nullptr;
}

void sector_cache::store(u64 sector, const u8 *content, u32 size) {
    forget(sector, 1, size);
    size_ = size;
    slot *oldest = std::min_element(std::begin(slots_), std::end(slots_),
                                    [](const slot &a, const slot &b) { return a.used < b.used; });
    oldest->sector = sector;
    oldest->used = ++time_;
    std::memcpy(oldest->content, content, size);
}

void sector_cache::forget(u64 first, u64 count, u32 size) {
    if (size != size_) {
        clear();
        return;
    }
    for (slot &known : slots_) {
        if (known.sector >= first && known.sector - first < count) {
            known.used = 0;
        }
    }
}

void sector_cache::clear() {
    for (slot &known : slots_) {
        known.used = 0;
    }
    time_ = 0;
}

} // namespace core
