#include "qvol/check/recovery.h"

#include "core/geometry.h"
#include "qvol/check/fat_evidence.h"

namespace qvol {

recovery::recovery(target *where, std::string encoding, bool repairs)
    : where_(*where), encoding_(std::move(encoding)), repairs_(repairs),
      held_(where->medium(), core::MIN_SECTOR_SIZE) {}

void recovery::recover_boot_sector() {
    const std::string reason = lost_boot_sector(where_);
    if (!reason.empty()) {
        hold_changes();
        restore_boot_sector(where_);
        add(found::BOOT_SECTOR, "the boot sector describes no volume: " + reason,
            "its backup copied over it");
    }
}

bool recovery::recover_fat() {
    const std::optional<fat_replacement> better = find_better_fat(&where_, encoding_);
    if (better) {
        hold_changes();
        const volume vol(where_, encoding_, required::AREAS);
        replace_fat_sectors(vol.on(), *better);
        where_.sync();
        add(found::FAT_DAMAGED, better->text(), "those sectors copied from there");
    }
    return better.has_value();
}

void recovery::hold_changes() {
    if (!repairs_ && !replaced_) {
        replaced_.emplace(&where_, &held_);
    }
}

void recovery::add(const finding_kind &kind, const std::string &text, const char *outcome) {
    findings_.push_back({kind.name, "", "", 0, text, repairs_, repairs_ ? outcome : ""});
}

} // namespace qvol
