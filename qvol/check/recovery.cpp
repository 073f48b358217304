#include "qvol/check/recovery.h"

#include "core/geometry.h"
#include "core/overlay.h"
#include "qvol/check/fat_evidence.h"
#include "qvol/check/rebuilt_boot.h"

#include <optional>

namespace qvol {

namespace {

class recovery {
public:
    // While it lives, the target has what was recovered.
    recovery(target *where, const std::string &encoding,
             const std::optional<repair_request> &request)
        : where_(*where), encoding_(encoding), repairs_(request.has_value()),
          rebuilds_boot_(request && request->rebuilds_boot),
          held_(where->medium(), core::MIN_SECTOR_SIZE) {}

    void recover_boot_sector();

    // True if the volume is to be checked again.
    bool recover_fat();

    [[nodiscard]] const std::vector<reported_finding> &findings() const {
        return findings_;
    }

private:
    void rebuild_boot_sector(const std::string &reason);
    void refuse_lost_boot_sector() const;
    void hold_changes();
    void add(const finding_kind &kind, const std::string &text, const char *outcome);

    target &where_;
    const std::string &encoding_;
    bool repairs_;
    bool rebuilds_boot_;
    core::overlay_medium held_; // of a check
    std::optional<replaced_medium> replaced_;
    std::vector<reported_finding> findings_;
};

void recovery::recover_boot_sector() {
    const std::string reason = lost_boot_sector(where_);
    if (reason.empty()) {
        return;
    }
    const std::optional<std::vector<u8>> backup = find_boot_backup(where_);
    if (backup) {
        hold_changes();
        write_boot_sector(where_, *backup);
        add(found::BOOT_SECTOR, "the boot sector describes no volume: " + reason,
            "its backup copied over it");
    } else if (rebuilds_boot_) {
        rebuild_boot_sector(reason);
    } else {
        refuse_lost_boot_sector();
    }
}

void recovery::rebuild_boot_sector(const std::string &reason) {
    const rebuilt_boot rebuilt = rebuilt_boot_sector(&where_, encoding_);
    write_boot_sector(where_, rebuilt.sector);
    add(found::BOOT_SECTOR,
        "the boot sector describes no volume: " + reason + "; rebuilt: " + rebuilt.text, "written");
}

// The refusal of every command, with what this one can do.
void recovery::refuse_lost_boot_sector() const {
    try {
        const volume refused(where_, encoding_, required::AREAS);
    } catch (const error &refusal) {
        if (!has_fats(where_)) {
            throw;
        }
        throw error(refusal.what() +
                    std::string("; --repair --rebuild-boot rebuilds it from the FATs"));
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
    reported_finding one;
    one.kind = kind.name;
    one.text = text;
    one.is_repaired = repairs_;
    one.outcome = repairs_ ? outcome : "";
    findings_.push_back(std::move(one));
}

// No request: nothing is repaired.
check_result check_once(const target &where, const std::string &encoding,
                        const std::optional<repair_request> &request) {
    volume vol(where, encoding, required::AREAS);
    return request ? repair_volume(vol, *request) : check_volume(vol);
}

check_result check_recovered(target *where, const std::string &encoding,
                             std::optional<repair_request> request) {
    recovery recovered(where, encoding, request);
    recovered.recover_boot_sector();
    check_result result = check_once(*where, encoding, request);
    if (result.is_fat_in_doubt() && (recovered.recover_fat() || request)) {
        if (request) {
            request->is_fat_believed = true;
        }
        result = check_once(*where, encoding, request);
    }
    result.findings.insert(result.findings.begin(), recovered.findings().begin(),
                           recovered.findings().end());
    return result;
}

} // namespace

check_result check_target(target *where, const std::string &encoding) {
    return check_recovered(where, encoding, std::nullopt);
}

check_result repair_target(target *where, const std::string &encoding,
                           const repair_request &request) {
    return check_recovered(where, encoding, request);
}

} // namespace qvol
