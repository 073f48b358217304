// Formats a target and sets the volume label.

#pragma once

#include "core/overlay.h"
#include "qvol/session.h"
#include "qvol/volume_shape.h"

#include <string>
#include <vector>

namespace qvol {

// Returns the label. Throws usage_error if it is invalid.
[[nodiscard]] std::string checked_label(const std::string &text);

// Formats the target, which must have the length of the shape. Stores the label in the boot sectors
// and the root directory. Without a label ("") the boot sectors get "NO NAME" and the root gets no
// entry.
void format_target(const target &where, const volume_shape &shape, const std::string &label);

// A volume on a device is built in place. Until release() the boot sector is buffered in memory and
// the first sector of the device is zero, so an interrupted build leaves no volume instead of a
// broken one.
class deferred_boot_sector {
public:
    deferred_boot_sector(target *where, u32 sector_bytes);
    ~deferred_boot_sector();
    deferred_boot_sector(const deferred_boot_sector &) = delete;
    deferred_boot_sector &operator=(const deferred_boot_sector &) = delete;

    // Writes and syncs the boot sector. Call it when everything else is synced.
    void release();

private:
    [[noreturn]] void fail(core::s64 written) const;

    target &where_;
    core::medium &device_;
    core::overlay_medium medium_; // holds the boot sector
};

} // namespace qvol
