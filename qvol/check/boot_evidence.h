// What a medium shows of a volume whose boot sector is lost: its FATs, and where directories are.
//
// The medium is read once, at most its first 128 MiB. Of each sector a hash is stored, so that
// areas can be compared without another read.

#pragma once

#include "core/medium.h"

#include <map>
#include <optional>
#include <vector>

namespace qvol {

using core::u32;
using core::u64;
using core::u8;

// FAT copies one after another.
struct found_fats {
    u32 width;
    u32 media;
    u64 offset; // bytes
    u64 bytes;  // of one copy
    u32 copies;

    [[nodiscard]] u64 past_end() const {
        return offset + copies * bytes;
    }
};

// A sector that begins with both dot entries.
struct dot_directory {
    u64 offset; // bytes
    u32 cluster;
    u32 parent;
};

class boot_evidence {
public:
    boot_evidence(core::medium &on, u64 bytes);

    // The first ones on the medium first; one for each width that is possible.
    [[nodiscard]] std::vector<found_fats> fats() const;

    [[nodiscard]] const std::vector<dot_directory> &directories() const {
        return directories_;
    }
    // The size of the sectors by the position of FSInfo, which is in sector 1.
    [[nodiscard]] std::optional<u32> fsinfo_sector_size() const {
        return fsinfo_sector_size_;
    }
    [[nodiscard]] u64 scanned_bytes() const {
        return hashes_.size() * UNIT;
    }
    // Of the bytes from `offset` on, the number of those in sectors that are not all zero.
    [[nodiscard]] u64 used_bytes(u64 offset, u64 bytes) const;

private:
    static constexpr u32 UNIT = 512; // bytes; all positions below are numbers of these

    // A sector that can be the first of a FAT.
    struct fat_mark {
        u64 position;
        std::vector<u32> widths;
    };

    void scan(core::medium &on, u64 bytes);
    void scan_sector(const u8 *sector);
    [[nodiscard]] bool are_copies(u64 first, u64 second, u64 count) const;
    [[nodiscard]] bool is_mark(u32 media, u64 position) const;
    void add_pairs(u32 media, const std::vector<fat_mark> &marks,
                   std::vector<found_fats> *found) const;
    void add_by_root(u32 media, const fat_mark &mark, std::vector<found_fats> *found) const;

    std::vector<u32> hashes_;                    // 0: all bytes are zero
    std::map<u32, std::vector<fat_mark>> marks_; // by media byte
    std::vector<dot_directory> directories_;
    std::vector<u64> listings_; // sectors with entries but without dot entries
    std::optional<u32> fsinfo_sector_size_;
};

} // namespace qvol
