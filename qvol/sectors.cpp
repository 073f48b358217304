#include "qvol/sectors.h"

#include "fat/internal.h"
#include "qvol/error.h"

#include <fmt/core.h>

namespace qvol {

namespace {

u32 sectors_in(std::size_t bytes) {
    return static_cast<u32>(bytes / sv->sector_size);
}

// `moved` is the result of the transfer: a negative errno, or fewer sectors than requested.
[[noreturn]] void fail(const char *action, u64 sector, u32 count, int moved) {
    throw error(fmt::format("cannot {} sectors {} to {} of the volume: {}", action, sector,
                            sector + count - 1,
                            moved < 0 ? std::strerror(-moved) : "past the end of the medium"));
}

} // namespace

void read_extent_into(u64 sector, std::span<u8> bytes) {
    const u32 count = sectors_in(bytes.size());
    const int moved = count != 0 ? read_sectors(bytes.data(), sector, count) : 0;
    if (moved != static_cast<int>(count)) {
        fail("read", sector, count, moved);
    }
}

std::vector<u8> read_extent(u64 sector, u32 count) {
    std::vector<u8> bytes(std::size_t{count} * sv->sector_size);
    read_extent_into(sector, bytes);
    return bytes;
}

void write_extent(u64 sector, std::span<const u8> bytes) {
    const u32 count = sectors_in(bytes.size());
    void *source = const_cast<u8 *>(bytes.data()); // a write does not change its buffer
    const int moved = count != 0 ? write_sectors(source, sector, count) : 0;
    if (moved != static_cast<int>(count)) {
        fail("write", sector, count, moved);
    }
}

u64 sector_of_cluster(u32 cluster) {
    return sv->data_start + u64{cluster - core::FIRST_DATA_CLUSTER} * sv->sec_per_clus;
}

} // namespace qvol
