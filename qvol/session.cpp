#include "qvol/session.h"

#include "core/boot_sector.h"
#include "core/chain.h"
#include "core/geometry.h"
#include "qvol/error.h"
#include "qvol/partitions.h"
#include "qvol/sectors.h"

#include <algorithm>
#include <cerrno>

#include <fmt/core.h>

namespace qvol {

namespace {

// ---- backup of the boot sector ----------------------------------------------------------------

// The usual sector of the backup. The field that states another one is in the damaged sector.
constexpr u64 BACKUP_SECTOR = 6;

// No value if there is no backup of a volume with sectors of this size.
std::optional<std::vector<u8>> read_backup(core::medium &from, u32 sector_bytes) {
    std::vector<u8> sector(sector_bytes);
    const core::s64 moved = from.read(BACKUP_SECTOR * sector_bytes, sector);
    if (moved != static_cast<core::s64>(sector_bytes) || !core::is_boot_signature(sector.data())) {
        return std::nullopt;
    }
    const core::boot_numbers numbers(sector.data());
    core::areas at;
    const bool is_backup =
        core::read_areas(numbers, core::width_rule::FAT_SIZE, &at) == core::fault::NONE &&
        at.width == 32 && at.sector_size == sector_bytes &&
        numbers.backup_sector == BACKUP_SECTOR && unsupported_volume(sector).empty();
    return is_backup ? std::optional(std::move(sector)) : std::nullopt;
}

std::vector<u8> required_backup(const target &where) {
    std::optional<std::vector<u8>> backup = find_boot_backup(where);
    if (!backup) {
        throw error(
            fmt::format("cannot mount {}: no backup of a FAT32 boot sector found in sector {}",
                        shown_bytes(where.path()), BACKUP_SECTOR));
    }
    return std::move(*backup);
}

// What a message about the boot sector adds: only commands that read can use the backup.
std::string backup_hint(const target &where) {
    return !where.is_writable() && find_boot_backup(where) ? "; --backup-boot reads with the backup"
                                                           : "";
}

// ---- boot sector ------------------------------------------------------------------------------

std::string padded_text(const u8 *record, const core::field &field) {
    std::string text(reinterpret_cast<const char *>(record) + field.offset, field.size);
    text.erase(std::find(text.begin(), text.end(), '\0'), text.end());
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

boot_fields parse_boot_sector(const core::volume &on) {
    const std::vector<u8> sector = read_extent(on, 0, 1);
    const core::boot_numbers numbers(sector.data());
    const u8 *extended =
        sector.data() + (on.is_wide() ? core::EBR_OFFSET_FAT32 : core::EBR_OFFSET_FAT16);
    const bool has_extended =
        core::load(extended, core::EBR_BOOT_SIGNATURE) == core::EXTENDED_BOOT_SIGNATURE;
    boot_fields boot{};
    boot.reserved_sectors = numbers.reserved_sectors;
    boot.fat_copies = numbers.fats;
    if (numbers.is_mirroring_off() && numbers.active_fat() < numbers.fats) {
        boot.active_fat = numbers.active_fat();
    }
    boot.root_entries = on.is_wide() ? 0 : numbers.root_entries;
    boot.media = numbers.media;
    boot.serial = has_extended ? core::load(extended, core::EBR_VOLUME_ID) : 0;
    boot.fsinfo_sector = on.is_wide() ? numbers.fsinfo_sector : 0;
    boot.backup_sector = on.is_wide() ? numbers.backup_sector : 0;
    boot.oem_name = padded_text(sector.data(), core::PBR_OEM_NAME);
    boot.has_label_field = has_extended;
    boot.label = has_extended ? padded_text(extended, core::EBR_VOLUME_LABEL) : std::string();
    return boot;
}

std::vector<contradiction> contradictions_on(const target &where, const core::volume &on) {
    const std::optional<u64> device_bytes =
        where.has_fixed_size() ? std::optional(where.size()) : std::nullopt;
    return contradictions_of(on, device_bytes);
}

void refuse_contradictions(const target &where, const core::volume &on) {
    std::vector<std::string> reasons;
    for (const contradiction &one : contradictions_on(where, on)) {
        reasons.push_back(one.text);
    }
    if (!reasons.empty()) {
        throw error(fmt::format("cannot write to {}: its boot sector contradicts itself",
                                shown_bytes(where.path())),
                    reasons);
    }
}

// The size of the boot sector is not known before it is read.
std::vector<u8> read_boot_sector(const target &where) {
    std::vector<u8> sector(core::MAX_SECTOR_SIZE);
    const core::s64 moved = where.medium().read(0, sector);
    if (moved < 0) {
        throw system_failure("read " + shown_bytes(where.path()), static_cast<int>(-moved));
    }
    if (moved < static_cast<core::s64>(sector.size())) {
        throw error(
            fmt::format("cannot mount {}: no FAT volume found: it has {} bytes, should have at "
                        "least {}",
                        shown_bytes(where.path()), moved, sector.size()));
    }
    return sector;
}

// What is there instead of a volume.
[[noreturn]] void refuse_other_content(const target &where, const std::string &reason) {
    const std::string name = shown_bytes(where.path());
    const std::string cannot = "cannot mount " + name + ": ";
    if (!where.is_part() && is_partitioned(where)) {
        throw error(cannot + "it is a partitioned disk; name one of its partitions",
                    partition_lines(where));
    }
    const std::string other = content_of(where, where.offset(), where.size()).file_system;
    const bool is_known = !other.empty() && other != "vfat";
    throw error(cannot + "no FAT volume found: " +
                (is_known ? "it contains " + other : reason + backup_hint(where)));
}

core::volume read_volume(const target &where) {
    const std::vector<u8> sector = read_boot_sector(where);
    const std::string none = no_volume_reason(sector);
    const std::string unsupported = none.empty() ? unsupported_volume(sector) : "";
    if (!unsupported.empty()) {
        throw error(
            fmt::format("{} {}{}", shown_bytes(where.path()), unsupported, backup_hint(where)));
    }
    core::volume on = {&where.medium(), {}};
    if (!none.empty() ||
        core::read_areas(core::boot_numbers(sector.data()), core::width_rule::FAT_SIZE, &on.at) !=
            core::fault::NONE) {
        refuse_other_content(where, none);
    }
    return on;
}

// A FAT32 root directory whose chain leads to a free cluster can still be read.
bool has_readable_root(const core::volume &on) {
    if (!on.is_wide() || on.at.root_cluster == 0) {
        return true;
    }
    core::table fat(on);
    u32 stopped_at = 0;
    const core::fault why = core::measure_chain(fat, on.at.root_cluster, &stopped_at).why;
    return why == core::fault::NONE || why == core::fault::FREE_CLUSTER;
}

core::volume open_volume(const target &where, required wanted) {
    const core::volume on = read_volume(where);
    if (wanted == required::AREAS) {
        return on;
    }
    if (where.is_writable()) {
        refuse_contradictions(where, on);
    }
    if (!has_readable_root(on)) {
        throw error(fmt::format("cannot mount {}: the root directory is damaged; \"qvol check\" "
                                "shows how",
                                shown_bytes(where.path())));
    }
    return on;
}

bool is_fsinfo(const std::vector<u8> &sector) {
    return core::load(sector.data(), core::FSINFO_LEAD) == core::FSINFO_LEAD_SIGNATURE &&
           core::load(sector.data(), core::FSINFO_STRUCTURE) == core::FSINFO_STRUCTURE_SIGNATURE;
}

} // namespace

// ---- backup of the boot sector ----------------------------------------------------------------

backup_boot_sector::backup_boot_sector(target *where)
    : backup_boot_sector(where, required_backup(*where)) {}

backup_boot_sector::backup_boot_sector(target *where, const std::vector<u8> &backup)
    : medium_(where->medium(), static_cast<u32>(backup.size())), replaced_(where, &medium_) {
    if (!where->has_fixed_size()) {
        medium_.allow_growth();
    }
    if (medium_.write(0, backup) != static_cast<core::s64>(backup.size())) {
        throw system_failure("read " + shown_bytes(where->path()), ENOMEM);
    }
}

std::optional<std::vector<u8>> find_boot_backup(const target &where) {
    for (u32 size = core::MIN_SECTOR_SIZE; size <= core::MAX_SECTOR_SIZE; size *= 2) {
        std::optional<std::vector<u8>> backup = read_backup(where.medium(), size);
        if (backup) {
            return backup;
        }
    }
    return std::nullopt;
}

std::string lost_boot_sector(const target &where) {
    const std::vector<u8> sector = read_boot_sector(where);
    const std::string none = no_volume_reason(sector);
    const std::string reason = none.empty() ? unsupported_volume(sector) : none;
    if (reason.empty() || (!where.is_part() && is_partitioned(where))) {
        return "";
    }
    const std::string other = content_of(where, where.offset(), where.size()).file_system;
    return other.empty() || other == "vfat" ? reason : "";
}

void write_boot_sector(const target &where, const std::vector<u8> &sector) {
    const core::s64 written = where.medium().write(0, sector);
    if (written != static_cast<core::s64>(sector.size())) {
        throw system_failure("write to " + shown_bytes(where.path()),
                             written < 0 ? static_cast<int>(-written) : EIO);
    }
    where.sync();
}

// ---- volume -----------------------------------------------------------------------------------

volume::volume(const target &where, const std::string &encoding, required wanted)
    : target_(where), on_(open_volume(where, wanted)), boot_(parse_boot_sector(on_)),
      names_(encoding), fat_(on_, boot_.copies_in_use()) {}

std::vector<contradiction> volume::contradictions() const {
    return contradictions_on(target_, on_);
}

void volume::commit_additions(const std::vector<directory *> &changed) {
    has_committed_ = true;
    for (directory *dir : changed) {
        dir->write_new_clusters();
    }
    fat_.write_changes();
    for (directory *dir : changed) {
        dir->write_changes();
    }
}

void volume::commit_removals(const std::vector<directory *> &changed) {
    has_committed_ = true;
    for (directory *dir : changed) {
        dir->write_changes();
    }
    fat_.write_changes();
}

void volume::finish() {
    if (boot_.fsinfo_sector != 0 && boot_.fsinfo_sector < boot_.reserved_sectors) {
        write_fsinfo();
    }
    target_.sync();
}

void volume::abandon() {
    if (!has_committed_) {
        return;
    }
    fat_.forget_changes();
    try {
        finish();
    } catch (const error &) {
        // the earlier error is the one to report
    }
}

// A sector without the signatures is not changed: it may contain something else.
void volume::write_fsinfo() {
    std::vector<u8> sector = read_extent(on_, boot_.fsinfo_sector, 1);
    if (!is_fsinfo(sector)) {
        return;
    }
    const std::vector<u8> before = sector;
    core::store(sector.data(), core::FSINFO_FREE_COUNT, fat_.free_count());
    core::store(sector.data(), core::FSINFO_NEXT_FREE, fat_.next_free());
    if (sector != before) {
        write_extent(on_, boot_.fsinfo_sector, sector);
    }
}

} // namespace qvol
