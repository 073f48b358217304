// Reads the clusters of many files once, in the order of the medium.
//
// The bytes of each file come in the order of the file. A file with extents that lead back on the
// medium takes a further sweep over it for each of them, which reads nothing else again.

#pragma once

#include "qvol/fat_table.h"

#include <functional>
#include <span>
#include <string>
#include <vector>

namespace qvol {

using file_extents = std::vector<cluster_extent>;

// Sectors of a file that are read at once, at most 1 MiB or a cluster.
struct reading_step {
    std::size_t file; // index
    u64 sector;
    u32 count;

    [[nodiscard]] u64 end() const {
        return sector + count;
    }
    bool operator==(const reading_step &) const = default;
};

[[nodiscard]] std::vector<reading_step> reading_order(const core::volume &on,
                                                      std::span<const file_extents> files);

// Passes on the bytes of each step. Steps that are near each other are read in one transfer.
// `fail`: called for a step that cannot be read.
void read_steps(const core::volume &on, std::span<const reading_step> steps,
                const std::function<void(std::size_t file, std::span<const u8> bytes)> &take,
                const std::function<void(std::size_t file, const std::string &why)> &fail);

// Reads `bytes` bytes of a file, or as many as its clusters have. `offset` is a multiple of 1 MiB.
[[nodiscard]] std::vector<u8> read_extents(const core::volume &on, const file_extents &extents,
                                           u64 offset, std::size_t bytes);

} // namespace qvol
