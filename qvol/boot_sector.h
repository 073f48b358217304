// Consistency checks of a boot sector: which volumes are not supported, and on which nothing may be
// written.
//
// Every volume is opened whose numbers can be computed with. If the numbers contradict each
// other, the locations of the areas are unknown, and a write could destroy anything.

#pragma once

#include "core/volume.h"

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace qvol {

using core::u32;
using core::u64;
using core::u8;

// The subject of a contradiction; "qvol check" has a kind of finding for each.
enum class contradiction_kind { FIELDS, FAT_SIZE, FSINFO_LOCATION, BACKUP_LOCATION, GEOMETRY };

struct contradiction {
    contradiction_kind kind;
    std::string text;
};

// Why a sector describes no volume: "bytes per sector is 300, should be ...". "" if it describes
// one.
[[nodiscard]] std::string no_volume_reason(std::span<const u8> boot);

// Why no command supports the volume that this boot sector describes: "has a boot sector that ...".
// "" for a supported volume.
[[nodiscard]] std::string unsupported_volume(std::span<const u8> boot);

// Why nothing may be written on the open volume. `device_bytes` is the size of a block device;
// an image file may end before the volume does: "qvol compact" makes such images.
[[nodiscard]] std::vector<contradiction> contradictions_of(const core::volume &on,
                                                           std::optional<u64> device_bytes);

// Whether a field with a sector number is in use: 0 and 0xFFFF mean "no sector".
[[nodiscard]] bool is_sector_given(u32 sector);

} // namespace qvol
