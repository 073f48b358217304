// The numbers of a boot sector, compared with each other: which volumes are not supported, and on
// which nothing may be written.
//
// The library mounts what it can compute with. A boot sector whose numbers contradict each other
// does not show where the areas are, so that a write could go anywhere.

#pragma once

#include "fat/bytes.h"

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace qvol {

using fat::u32;
using fat::u64;
using fat::u8;

// What a contradiction is about; "qvol check" has a kind of finding for each.
enum class contradiction_kind {
    FIELDS,
    FAT_SIZE,
    FSINFO_LOCATION,
    BACKUP_LOCATION,
    GEOMETRY,
    ACTIVE_FAT
};

struct contradiction {
    contradiction_kind about;
    std::string text;
};

// Why no command works with a volume that has this boot sector, although its numbers describe one:
// "is a FAT12 volume with ...". "" for a supported volume, and for a sector that describes none.
[[nodiscard]] std::string unsupported_volume(std::span<const u8> boot);

// Why nothing may be written on the mounted volume. `device_bytes` is the size of a block device;
// an image file may end before the volume does: "qvol compact" makes such images.
[[nodiscard]] std::vector<contradiction> contradictions_of(std::span<const u8> boot,
                                                           std::optional<u64> device_bytes);

// Whether a field for the number of a sector names one: 0 and 0xFFFF do not.
[[nodiscard]] bool is_sector_named(u32 sector);

} // namespace qvol
