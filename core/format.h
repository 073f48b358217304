// Formatting: writes an empty volume.
//
// Order on the medium: boot sector, zeros to the rest of the reserved area, backup boot sector,
// FSInfo, every FAT copy, root directory. Nothing is undone after a failed write. Of the data area
// only the cluster of a FAT32 root directory is written.

#pragma once

#include "core/boot_sector.h"
#include "core/record.h"

namespace core {

// Writes the volume `to`, whose areas are laid out. The root directory gets a blank label entry
// with the time stamp `made`. Faults: NO_MEMORY, WRITE.
[[nodiscard]] fault format(const volume &to, const boot_request &request, const dos_moment &made);

} // namespace core
