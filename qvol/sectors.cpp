#include "qvol/sectors.h"

#include "qvol/error.h"

#include <fmt/core.h>

namespace qvol {

namespace {

u32 sectors_in(const core::volume &on, std::size_t bytes) {
    return static_cast<u32>(bytes / on.at.sector_size);
}

// `moved` is the result of the transfer: a negative errno, or fewer sectors than requested.
[[noreturn]] void fail(const char *action, u64 sector, u32 count, int moved) {
    throw error(fmt::format("cannot {} sectors {} to {} of the volume: {}", action, sector,
                            sector + count - 1,
                            moved < 0 ? std::strerror(-moved) : "past the end of the medium"));
}

} // namespace

void read_extent_into(const core::volume &on, u64 sector, std::span<u8> bytes) {
    const u32 count = sectors_in(on, bytes.size());
    const int moved = count != 0 ? on.read(sector, bytes.data(), count) : 0;
    if (moved != static_cast<int>(count)) {
        fail("read", sector, count, moved);
    }
}

std::vector<u8> read_extent(const core::volume &on, u64 sector, u32 count) {
    std::vector<u8> bytes(std::size_t{count} * on.at.sector_size);
    read_extent_into(on, sector, bytes);
    return bytes;
}

void write_extent(const core::volume &on, u64 sector, std::span<const u8> bytes) {
    const u32 count = sectors_in(on, bytes.size());
    const int moved = count != 0 ? on.write(sector, bytes.data(), count) : 0;
    if (moved != static_cast<int>(count)) {
        fail("write", sector, count, moved);
    }
}

bool is_zero(std::span<const u8> bytes) {
    return bytes.empty() || (bytes.front() == 0 &&
                             std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

} // namespace qvol
