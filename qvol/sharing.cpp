#include "qvol/sharing.h"

#include "qvol/fat_table.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace qvol {

namespace {

constexpr u64 MIN_BYTES = u64{64} * 1024; // copying less takes no longer

bool has_holes(int file, u64 bytes) {
    const off_t hole = lseek(file, 0, SEEK_HOLE);
    return hole < 0 || static_cast<u64>(hole) < bytes;
}

} // namespace

// Contiguous clusters at once.
bool block_sharing::clone(const core::volume &on, int file, std::span<const u32> clusters) {
    u64 offset = 0;
    for (const cluster_extent &extent : extents_of(clusters)) {
        file_clone_range range{};
        range.src_fd = file;
        range.src_offset = offset;
        range.src_length = u64{extent.count} * on.cluster_bytes();
        range.dest_offset = where_.offset() + on.sector_of(extent.first) * u64{on.at.sector_size};
        if (ioctl(where_.descriptor(), FICLONERANGE, &range) != 0) {
            return false;
        }
        offset += range.src_length;
    }
    return true;
}

// What is copied after a refusal overwrites what was shared before it.
u64 block_sharing::share(const core::volume &on, int file, u64 bytes,
                         std::span<const u32> clusters) {
    const u64 whole = bytes / on.cluster_bytes();
    if (!is_possible_ || bytes < MIN_BYTES || has_holes(file, bytes)) {
        return 0;
    }
    is_possible_ = clone(on, file, clusters.first(static_cast<std::size_t>(whole)));
    return is_possible_ ? whole * on.cluster_bytes() : 0;
}

} // namespace qvol
