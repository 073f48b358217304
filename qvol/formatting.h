// Laying a fresh file system on a target, and its label.

#pragma once

#include "qvol/session.h"
#include "qvol/volume_shape.h"

#include <string>
#include <vector>

namespace qvol {

// A label as it is stored. Throws usage_error for one that a volume cannot have. No label: "".
[[nodiscard]] std::string checked_label(const std::string &text);

// Formats the target, which is as long as the shape says. The label goes into the boot sectors and
// the root directory; where there is none, "NO NAME" goes into the first, and no entry into the
// second.
void format_target(const volume_shape &shape, const std::string &label);

// A device has no other place than its own. While one lives, the first sector of the device is kept
// in memory and zeroes stand in its place: an interrupted build leaves no volume rather than a
// broken one.
class withheld_boot_sector {
public:
    explicit withheld_boot_sector(const target &where);
    ~withheld_boot_sector();
    withheld_boot_sector(const withheld_boot_sector &) = delete;
    withheld_boot_sector &operator=(const withheld_boot_sector &) = delete;

    // Writes it, when everything else is on the medium.
    void release();

private:
    const target &where_;
};

} // namespace qvol
