#include "core/slots.h"

#include <algorithm>

namespace core {

namespace {

constexpr u32 READ_AHEAD_BYTES = 32 * 1024; // the size of a large cluster

result<u32> sector_in_root_area(const volume &of, u32 sector_index) {
    const u64 sector = static_cast<u64>(of.at.root_start) + sector_index;
    if (sector >= of.at.data_start) {
        return fault::ROOT_AREA_END;
    }
    return static_cast<u32>(sector);
}

} // namespace

result<u32> sector_in_space(table &fat, chain_cursor *cursor, u32 first, u32 sector_index) {
    const volume &of = fat.on();
    if (first >= FIRST_DATA_CLUSTER && !of.is_data_cluster(first)) {
        return fault::START_OUTSIDE;
    }
    if (first == 0 && !of.is_wide()) {
        return sector_in_root_area(of, sector_index);
    }
    if (first < FIRST_DATA_CLUSTER) {
        return fault::START_RESERVED;
    }
    const fault moved = cursor->move(fat, first, sector_index / of.at.sectors_per_cluster);
    if (moved != fault::NONE) {
        return moved;
    }
    if (cursor->cluster == FAT_FREE) {
        return fault::FREE_CLUSTER;
    }
    if (of.is_end_of_chain(cursor->cluster)) {
        return fault::CHAIN_END;
    }
    return of.sector_of(cursor->cluster) + sector_index % of.at.sectors_per_cluster;
}

u32 sector_index_of_slot(const volume &of, u32 slot) {
    return static_cast<u32>(static_cast<u64>(slot) * DENTRY_SIZE / of.at.sector_size);
}

u32 offset_of_slot(const volume &of, u32 slot) {
    return static_cast<u32>(static_cast<u64>(slot) * DENTRY_SIZE % of.at.sector_size);
}

// ---- walk -------------------------------------------------------------------------------------

bool slot_walk::reserve() {
    if (buffer_ == nullptr) {
        buffer_ = zeroed_bytes(fat_.on().at.sector_size);
    }
    return buffer_ != nullptr;
}

// Number of contiguous sectors from the current sector on, in the root area or in an extent of
// clusters, limited to the size of a window and to the links that are already in memory.
u32 slot_walk::contiguous_sectors() const {
    const volume &of = fat_.on();
    const u32 limit = READ_AHEAD_BYTES / of.at.sector_size;
    if (first_ == 0) {
        return std::min(of.at.data_start - place_.sector, limit);
    }
    const u32 per_cluster = of.at.sectors_per_cluster;
    const u32 in_cluster = per_cluster - (place_.sector - of.at.data_start) % per_cluster;
    const u32 clusters = fat_.contiguous_links(cursor_.cluster, limit / per_cluster);
    return std::min(in_cluster + clusters * per_cluster, limit);
}

fault slot_walk::read_sector(bool continues) {
    const volume &of = fat_.on();
    if (ahead_.find(place_.sector) != nullptr ||
        (continues && reads_ahead_ && ahead_.read_ahead(of, place_.sector, contiguous_sectors()))) {
        std::memcpy(buffer_.get(), ahead_.find(place_.sector), of.at.sector_size);
        of.used(place_.sector, buffer_.get());
        return fault::NONE;
    }
    if (on_empty_ == empty_read::ZEROS) {
        std::memset(buffer_.get(), 0, of.at.sector_size);
    }
    const int moved = of.read(place_.sector, buffer_.get(), 1);
    had_empty_read_ = had_empty_read_ || moved == 0;
    return moved < 0 ? fault::READ : fault::NONE;
}

fault slot_walk::move_to(u32 slot) {
    if (!reserve()) {
        return fault::NO_MEMORY;
    }
    const volume &of = fat_.on();
    const bool continues = slot - first_slot_ == slots_ && slot > 0;
    slots_ = 0;
    if (slot >= limit_) {
        return fault::SIZE_END;
    }
    place_ = {0, offset_of_slot(of, slot)};
    const result<u32> sector =
        sector_in_space(fat_, &cursor_, first_, sector_index_of_slot(of, slot));
    if (!sector.ok()) {
        return sector.why;
    }
    place_.sector = sector.value;
    const fault read = read_sector(continues);
    if (read != fault::NONE) {
        return read;
    }
    first_slot_ = slot - place_.offset / DENTRY_SIZE;
    slots_ = of.at.sector_size / DENTRY_SIZE;
    return fault::NONE;
}

} // namespace core
