#include "qvol/check/recovery.h"

#include "core/geometry.h"
#include "core/overlay.h"
#include "qvol/check/fat_evidence.h"

#include <optional>

namespace qvol {

namespace {

class recovery {
public:
    // While it lives, the target has what was recovered.
    recovery(target *where, const std::string &encoding, bool repairs)
        : where_(*where), encoding_(encoding), repairs_(repairs),
          held_(where->medium(), core::MIN_SECTOR_SIZE) {}

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
    const std::string &encoding_;
    bool repairs_;
    core::overlay_medium held_; // of a check
    std::optional<replaced_medium> replaced_;
    std::vector<reported_finding> findings_;
};

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

// No request: nothing is repaired.
check_result check_once(const target &where, const std::string &encoding,
                        const std::optional<repair_request> &request) {
    volume vol(where, encoding, required::AREAS);
    return request ? repair_volume(vol, *request) : check_volume(vol);
}

check_result check_recovered(target *where, const std::string &encoding,
                             std::optional<repair_request> request) {
    recovery recovered(where, encoding, request.has_value());
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
