// Formats a target and sets the volume label.

#pragma once

#include "core/overlay.h"
#include "qvol/session.h"
#include "qvol/short_name.h"
#include "qvol/volume_shape.h"

#include <optional>
#include <string>
#include <vector>

namespace qvol {

// Returns the label. Throws usage_error if it is invalid.
[[nodiscard]] std::string checked_label(const std::string &option, const std::string &text);

// The bytes of a label on the medium; of "" those of a boot sector without a label.
[[nodiscard]] short_name stored_label(const std::string &label);

// What a new volume states about itself besides its areas.
struct volume_identity {
    std::string label;            // "": the boot sectors get "NO NAME", the root gets no entry
    std::optional<u32> volume_id; // no value: the present time
    std::optional<std::string> oem_name;
    u32 media = core::MEDIA_FIXED;
    u32 hidden_sectors = 0; // before the volume on its disk
};

// The number of "XXXX-XXXX" or "XXXXXXXX", in hexadecimal digits. Throws usage_error.
[[nodiscard]] u32 parse_volume_id(const std::string &option, const std::string &text);
[[nodiscard]] std::string shown_volume_id(u32 id); // "1A2B-3C4D"

// A media byte, 0xF0 or 0xF8 to 0xFF. Throws usage_error.
[[nodiscard]] u32 parse_media(const std::string &text);

// Returns the name. Throws usage_error if it is longer than 8 characters, or not printable ASCII.
[[nodiscard]] std::string checked_oem_name(const std::string &text);

// The boot sector of a volume with these areas. `root_entries` counts on FAT12 and FAT16.
[[nodiscard]] std::vector<u8> boot_sector_of(const core::areas &at, u32 fats, u32 root_entries,
                                             const volume_identity &identity);

// Formats the target, which must have the length of the shape. Stores the label in the boot sectors
// and the root directory.
void format_target(const target &where, const volume_shape &shape, const volume_identity &identity);

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
