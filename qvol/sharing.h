// Shares the blocks of a file of the host with an image instead of copying them, where the file
// system can: XFS, btrfs.

#pragma once

#include "core/volume.h"
#include "qvol/target.h"

#include <span>

namespace qvol {

class block_sharing {
public:
    explicit block_sharing(const target &where) : where_(where), is_possible_(!where.is_device()) {}

    // Shares the whole clusters at the start of a file; returns their number of bytes, 0 if nothing
    // is shared. A file with holes is not shared: they would be holes of the image.
    [[nodiscard]] u64 share(const core::volume &on, int file, u64 bytes,
                            std::span<const u32> clusters);

private:
    [[nodiscard]] bool clone(const core::volume &on, int file, std::span<const u32> clusters);

    const target &where_;
    bool is_possible_; // until the file system has refused
};

} // namespace qvol
