#include "core/volume.h"

namespace core {

namespace {

int whole_sectors(s64 moved, u32 sector_size) {
    return static_cast<int>(moved < 0 ? moved : moved / sector_size);
}

std::size_t bytes_of(const areas &at, u32 count) {
    return std::size_t{count} * at.sector_size;
}

} // namespace

int volume::read(u64 sector, u8 *bytes, u32 count) const {
    return whole_sectors(device->read(sector * at.sector_size, {bytes, bytes_of(at, count)}),
                         at.sector_size);
}

int volume::read_ahead(u64 sector, u8 *bytes, u32 count) const {
    return whole_sectors(device->read_ahead(sector * at.sector_size, {bytes, bytes_of(at, count)}),
                         at.sector_size);
}

void volume::used(u64 sector, const u8 *bytes) const {
    device->used(sector * at.sector_size, {bytes, at.sector_size});
}

int volume::write(u64 sector, const u8 *bytes, u32 count) const {
    return whole_sectors(device->write(sector * at.sector_size, {bytes, bytes_of(at, count)}),
                         at.sector_size);
}

} // namespace core
