// Sectors that were read together because a walk visits them in ascending order.

#pragma once

#include "core/fault.h"
#include "core/resources.h"
#include "core/volume.h"

namespace core {

// The owner reports every write to the volume by refresh() or forget().
class sector_window {
public:
    // The bytes of a sector, null where the window does not contain it.
    [[nodiscard]] u8 *find(u64 sector) const;

    [[nodiscard]] u64 end() const { // the sector after the last one
        return first_ + count_;
    }
    [[nodiscard]] u32 count() const {
        return count_;
    }

    // Ensures room for at least one sector of the volume. False without memory.
    [[nodiscard]] bool reserve(const volume &of);

    // Loads that one sector. Returns NONE, NO_MEMORY or READ.
    [[nodiscard]] fault load(const volume &of, u64 sector);

    // Loads one sector that is already in memory.
    void set(u64 sector, const u8 *content);

    // Reads up to `count` sectors, limited by the maximum window size, if that is more than one.
    // True if the window contains `sector` afterwards; otherwise the caller reads that one sector.
    // A bad sector further on, a short transfer or a lack of memory are not errors here.
    [[nodiscard]] bool read_ahead(const volume &of, u64 sector, u32 count);

    // Copies the new content of a sector into the window if the window contains that sector.
    void refresh(u64 sector, const u8 *content) const;

    // Empties the window if it contains a sector whose content is no longer known.
    void forget(u64 sector);
    void clear() {
        count_ = 0;
    }

private:
    [[nodiscard]] bool grow(const volume &of, u32 sectors);

    heap_ptr<u8> buffer_;
    u32 room_ = 0; // capacity of the buffer, in sectors
    u32 count_ = 0;
    u32 sector_size_ = 0;
    u64 first_ = 0;         // number of the first sector in the buffer
    u64 singles_below_ = 0; // sectors below this are read alone: reading them together failed
};

} // namespace core
