#include "qvol/flashing/needed_ranges.h"

#include <algorithm>
#include <cerrno>

#include <unistd.h>

namespace qvol {

namespace {

// Adds an ascending range, and joins it with the last one if they touch or overlap.
void append_range(std::vector<byte_range> *ranges, const byte_range &next) {
    if (next.bytes == 0) {
        return;
    }
    if (!ranges->empty() && next.offset <= ranges->back().end()) {
        ranges->back().bytes = std::max(ranges->back().end(), next.end()) - ranges->back().offset;
    } else {
        ranges->push_back(next);
    }
}

// The first byte from `offset` on that is in a hole (SEEK_HOLE), or that is not (SEEK_DATA); or the
// end.
u64 next_border(const target &of, u64 offset, int whence) {
    const off_t found = lseek(of.descriptor(), static_cast<off_t>(of.offset() + offset), whence);
    if (found >= 0) {
        return std::min(static_cast<u64>(found) - of.offset(), of.size());
    }
    return errno == ENXIO || whence == SEEK_HOLE ? of.size() : offset;
}

} // namespace

std::vector<byte_range> needed_ranges(volume &vol) {
    const core::volume &on = vol.on();
    const u64 start = vol.where().offset();
    std::vector<byte_range> ranges;
    append_range(&ranges, {start, u64{on.at.data_start} * on.at.sector_size});
    vol.fat().visit_used([&](u32 cluster, u32 value) {
        if (value != on.bad_mark()) {
            append_range(&ranges, {start + u64{on.sector_of(cluster)} * on.at.sector_size,
                                   on.cluster_bytes()});
        }
    });
    return ranges;
}

std::vector<byte_range> data_ranges(const target &of, u64 start) {
    std::vector<byte_range> ranges;
    for (u64 offset = 0; offset < of.size();) {
        const u64 data = next_border(of, offset, SEEK_DATA);
        offset = next_border(of, data, SEEK_HOLE);
        append_range(&ranges, {start + data, offset - data});
    }
    return ranges;
}

std::vector<byte_range> in_blocks(const std::vector<byte_range> &ranges, u64 block_bytes,
                                  u64 size) {
    std::vector<byte_range> blocks;
    for (const byte_range &range : ranges) {
        if (range.bytes == 0) {
            continue;
        }
        const u64 begin = range.offset / block_bytes * block_bytes;
        const u64 end = (range.end() + block_bytes - 1) / block_bytes * block_bytes;
        append_range(&blocks, {begin, std::min(end, size) - std::min(begin, size)});
    }
    return blocks;
}

u64 total_bytes(const std::vector<byte_range> &ranges) {
    u64 bytes = 0;
    for (const byte_range &range : ranges) {
        bytes += range.bytes;
    }
    return bytes;
}

} // namespace qvol
