// The areas before the data: boot sector, FSInfo, the first two FAT entries, the FAT copies.

#include "qvol/boot_sector.h"
#include "qvol/check/repair.h"
#include "qvol/check/survey.h"
#include "qvol/output.h"
#include "qvol/sectors.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

bool is_reserved(const survey &checked, u32 sector) {
    return sector < checked.vol.boot().reserved_sectors;
}

void add_finding(survey *checked, const finding_kind &kind, std::string text,
                 std::string remedy = "", std::function<void(repair_plan *)> repair = {}) {
    checked->add({&kind, NO_NODE, 0, std::move(text), std::move(remedy), std::move(repair)});
}

// ---- boot sector ----

const finding_kind *finding_kind_of(contradiction_kind kind) {
    switch (kind) {
    case contradiction_kind::FAT_SIZE:
        return &found::FAT_SIZE;
    case contradiction_kind::FSINFO_LOCATION:
        return &found::FSINFO_LOCATION;
    case contradiction_kind::BACKUP_LOCATION:
        return &found::BACKUP_LOCATION;
    case contradiction_kind::GEOMETRY:
        return &found::GEOMETRY;
    case contradiction_kind::FIELDS:
        break;
    }
    return &found::FIELDS;
}

void check_contradictions(survey *checked) {
    for (const contradiction &one : checked->vol.contradictions()) {
        add_finding(checked, *finding_kind_of(one.kind), one.text);
    }
}

// One byte holds the dirty flag of some systems, only in the boot sector: it is not compared.
bool is_same_boot_sector(const std::vector<u8> &boot, std::vector<u8> backup) {
    constexpr u32 FLAG = core::EBR_OFFSET_FAT32 + core::EBR_RESERVED.offset;
    backup[FLAG] = boot[FLAG];
    return std::equal(boot.begin(), boot.begin() + core::PBR_SIZE, backup.begin());
}

// A backup with other locations of the areas is a contradiction and is not overwritten.
void check_backup(survey *checked) {
    const u32 sector = checked->vol.boot().backup_sector;
    const bool has_other_areas =
        std::any_of(checked->findings.begin(), checked->findings.end(),
                    [](const finding &one) { return one.kind == &found::GEOMETRY; });
    if (!is_sector_given(sector) || !is_reserved(*checked, sector) || has_other_areas ||
        is_same_boot_sector(read_extent(checked->on(), 0, 1),
                            read_extent(checked->on(), sector, 1))) {
        return;
    }
    add_finding(
        checked, found::BACKUP,
        fmt::format("the backup boot sector (sector {}) differs from the boot sector", sector),
        "boot sector copied over it",
        [sector](repair_plan *plan) { plan->copy_boot_sector(sector); });
}

// ---- label ----

// What systems write that store no label.
constexpr short_name NO_LABEL = {'N', 'O', ' ', 'N', 'A', 'M', 'E', ' ', ' ', ' ', ' '};

std::string label_text(const short_name &label) {
    std::string text(label.begin(), label.end());
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

// As it is on the medium now.
std::string boot_label(const survey &checked) {
    const u32 extended = checked.on().is_wide() ? core::EBR_OFFSET_FAT32 : core::EBR_OFFSET_FAT16;
    const std::vector<u8> sector = read_extent(checked.on(), 0, 1);
    short_name label{};
    std::copy_n(sector.begin() + extended + core::EBR_VOLUME_LABEL.offset, label.size(),
                label.begin());
    return label_text(label);
}

std::string shown_label(const std::string &label) {
    return label.empty() ? "missing" : shown_bytes(label);
}

// ---- FSInfo ----

bool has_fsinfo(const survey &checked) {
    const u32 sector = checked.vol.boot().fsinfo_sector;
    return is_sector_given(sector) && is_reserved(checked, sector);
}

bool has_signatures(const std::vector<u8> &fsinfo) {
    return core::load(fsinfo.data(), core::FSINFO_LEAD) == core::FSINFO_LEAD_SIGNATURE &&
           core::load(fsinfo.data(), core::FSINFO_STRUCTURE) == core::FSINFO_STRUCTURE_SIGNATURE &&
           core::load(fsinfo.data(), core::FSINFO_TRAIL) == core::FSINFO_TRAIL_SIGNATURE;
}

void check_fsinfo(survey *checked) {
    const u32 sector = checked->vol.boot().fsinfo_sector;
    if (has_fsinfo(*checked) && !has_signatures(read_extent(checked->on(), sector, 1))) {
        add_finding(checked, found::FSINFO_SIGNATURE,
                    fmt::format("FSInfo (sector {}): signature missing", sector), "rewritten",
                    [sector](repair_plan *plan) { plan->write_fsinfo(sector); });
    }
}

// ---- FAT ----

// Flags in FAT entry 1, set while the volume has no problem.
struct state_bits {
    u32 is_clean;      // cleanly unmounted
    u32 has_no_errors; // no I/O errors
};

state_bits state_bits_of_type(const survey &checked) {
    switch (checked.on().at.width) {
    case 12:
        return {0, 0}; // it has none
    case 16:
        return {0x8000, 0x4000};
    default:
        return {0x08000000, 0x04000000};
    }
}

void check_media(survey *checked, u32 value) {
    const u32 wanted = (0xFFFFFF00 | checked->vol.boot().media) & checked->on().value_mask();
    if (value != wanted) {
        add_finding(
            checked, found::FAT_MEDIA,
            fmt::format("FAT entry 0 is {:#x}, should be {:#x} for this media byte", value, wanted),
            "corrected", [wanted](repair_plan *plan) { plan->set_fixed_entry(0, wanted); });
    }
}

void check_end_mark(survey *checked, u32 value) {
    const state_bits bits = state_bits_of_type(*checked);
    if (!checked->on().is_end_of_chain(value | bits.is_clean | bits.has_no_errors)) {
        const u32 wanted = checked->on().value_mask();
        add_finding(checked, found::FAT_END_MARK,
                    fmt::format("FAT entry 1 is {:#x}, should be an end-of-chain mark", value),
                    "corrected", [wanted](repair_plan *plan) { plan->set_fixed_entry(1, wanted); });
    } else if ((value & bits.has_no_errors) != bits.has_no_errors) {
        add_finding(checked, found::DIRTY, "error flag set: the medium reported I/O errors",
                    "flag cleared", [](repair_plan *plan) { plan->set_clean(); });
    } else if ((value & bits.is_clean) != bits.is_clean) {
        add_finding(checked, found::DIRTY, "dirty flag set: not cleanly unmounted", "flag cleared",
                    [](repair_plan *plan) { plan->set_clean(); });
    }
}

void check_fixed_entries(survey *checked) {
    const std::vector<u8> fat = read_extent(checked->on(), checked->on().at.fat_start, 1);
    const auto value = [&](u32 index) {
        return core::load_entry(checked->on().at.width, index,
                                fat.data() + checked->on().entry_offset(index));
    };
    check_media(checked, value(0));
    check_end_mark(checked, value(1));
}

// Some systems store the dirty flag in the boot sector as well.
void check_boot_flag(survey *checked) {
    const u32 extended =
        checked->on().at.width == 32 ? core::EBR_OFFSET_FAT32 : core::EBR_OFFSET_FAT16;
    if ((core::load(read_extent(checked->on(), 0, 1).data() + extended, core::EBR_RESERVED) & 1) !=
        0) {
        add_finding(checked, found::DIRTY,
                    "dirty flag set in the boot sector: not cleanly unmounted", "flag cleared",
                    [](repair_plan *plan) { plan->set_clean(); });
    }
}

void check_copies(survey *checked) {
    for (const copy_difference &difference : checked->table.compare_copies()) {
        checked->add(
            {&found::FAT_COPIES, NO_NODE, difference.cluster,
             fmt::format("FAT copy {} differs from copy 0 in {}, first at {} {}", difference.copy,
                         counted(difference.sectors, "sector", "sectors"),
                         difference.cluster < core::FIRST_DATA_CLUSTER ? "entry" : "cluster",
                         difference.cluster),
             "copy 0 copied over it", [](repair_plan *plan) { plan->copy_first_fat(); }});
    }
}

} // namespace

// A formatter that stores a label in the boot sector alone leaves a blank one in the root.
void check_label(survey *checked) {
    const short_name in_root = checked->root_label.value_or(NO_LABEL);
    const std::string root = label_text(in_root);
    const std::string boot = boot_label(*checked);
    const bool is_blank_in_root = checked->root_label && root.empty();
    const bool is_none_in_boot = boot.empty() || boot == label_text(NO_LABEL);
    const bool is_text = std::all_of(in_root.begin(), in_root.end(), [](u8 c) { return c >= ' '; });
    if (!is_text || is_blank_in_root || root == boot || (!checked->root_label && is_none_in_boot) ||
        !checked->vol.boot().has_label_field) {
        return;
    }
    add_finding(checked, found::BOOT_LABEL,
                fmt::format("the volume label is {} in the boot sector, {} in the root directory",
                            shown_label(boot), shown_label(checked->root_label ? root : "")),
                "that of the root directory copied", [in_root, checked](repair_plan *plan) {
                    plan->set_boot_label(in_root);
                    const u32 backup = checked->vol.boot().backup_sector;
                    if (is_sector_given(backup) && is_reserved(*checked, backup)) {
                        plan->copy_boot_sector(backup);
                    }
                });
    checked->findings.back().is_disputable = true;
}

void check_areas(survey *checked) {
    if (checked->vol.boot().fat_copies == 0) {
        throw error("cannot check the volume: it has 0 FAT copies, should have at least 1");
    }
    check_contradictions(checked);
    check_backup(checked);
    check_boot_flag(checked);
    check_fsinfo(checked);
    check_fixed_entries(checked);
    check_copies(checked);
}

void check_fsinfo_counts(survey *checked) {
    if (!has_fsinfo(*checked)) {
        return;
    }
    const u32 sector = checked->vol.boot().fsinfo_sector;
    const std::vector<u8> fsinfo = read_extent(checked->on(), sector, 1);
    const u32 free_count = core::load(fsinfo.data(), core::FSINFO_FREE_COUNT);
    const u32 next = core::load(fsinfo.data(), core::FSINFO_NEXT_FREE);
    const auto repair = [sector](repair_plan *plan) { plan->write_fsinfo(sector); };
    if (!has_signatures(fsinfo)) {
        return; // the repair writes the counts with them
    }
    if (free_count != core::FSINFO_UNKNOWN && free_count != checked->table.free_count()) {
        add_finding(checked, found::FSINFO_FREE,
                    fmt::format("FSInfo free count is {}, should be {}", free_count,
                                checked->table.free_count()),
                    "corrected", repair);
    }
    if (next != core::FSINFO_UNKNOWN && !checked->table.on().is_data_cluster(next)) {
        add_finding(checked, found::FSINFO_NEXT,
                    fmt::format("FSInfo next free cluster is {}, should be {} to {}", next,
                                core::FIRST_DATA_CLUSTER, checked->table.last_cluster()),
                    "corrected", repair);
    }
}

} // namespace qvol
