// What a volume has elsewhere: the backup of its boot sector, other copies of its FAT. A repair
// copies it before everything else, a check uses it from memory.

#pragma once

#include "core/overlay.h"
#include "qvol/check/check.h"

#include <optional>
#include <string>
#include <vector>

namespace qvol {

class recovery {
public:
    // While it lives, the target has what was recovered.
    recovery(target *where, std::string encoding, bool repairs);

    void recover_boot_sector();

    // True if the volume is to be checked again.
    bool recover_fat();

    [[nodiscard]] const std::vector<reported_finding> &findings() const {
        return findings_;
    }

private:
    void hold_changes();
    void add(const finding_kind &kind, const std::string &text, const char *outcome);

    target &where_;
    std::string encoding_;
    bool repairs_;
    core::overlay_medium held_; // of a check
    std::optional<replaced_medium> replaced_;
    std::vector<reported_finding> findings_;
};

} // namespace qvol
