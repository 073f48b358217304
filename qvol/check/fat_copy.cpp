#include "qvol/check/fat_copy.h"

#include "core/table.h"

#include <algorithm>

namespace qvol {

// An entry of FAT12 may continue in the next sector.
u32 fat_copy::get(u32 cluster) {
    const u64 offset = on_.entry_offset(cluster);
    const u64 sector = offset / on_.at.sector_size;
    if (sector != loaded_) {
        const u64 left = on_.at.fat_sectors - sector;
        bytes_ = read_extent(on_, start_ + sector, static_cast<u32>(std::min<u64>(left, 2)));
        loaded_ = sector;
    }
    return core::load_entry(on_.at.width, cluster, bytes_.data() + offset % on_.at.sector_size);
}

} // namespace qvol
