// The areas in front of the data: boot sector, FSInfo, the first two FAT entries, the FAT copies.

#include "qvol/boot_sector.h"
#include "qvol/check/repair.h"
#include "qvol/check/survey.h"
#include "qvol/output.h"
#include "qvol/sectors.h"

#include <algorithm>

#include <fmt/core.h>

namespace qvol {

namespace {

bool is_reserved(const survey &in, u32 sector) {
    return sector < in.vol.boot().reserved_sectors;
}

void tell(survey *in, const finding_kind &as, std::string text, std::string remedy = "",
          std::function<void(repair *)> mend = {}) {
    in->add({&as, NO_NODE, 0, std::move(text), std::move(remedy), std::move(mend)});
}

// ---- boot sector ----

const finding_kind *kind_of(contradiction_kind about) {
    switch (about) {
    case contradiction_kind::FAT_SIZE:
        return &found::FAT_SIZE;
    case contradiction_kind::FSINFO_LOCATION:
        return &found::FSINFO_LOCATION;
    case contradiction_kind::BACKUP_LOCATION:
        return &found::BACKUP_LOCATION;
    case contradiction_kind::GEOMETRY:
        return &found::GEOMETRY;
    case contradiction_kind::ACTIVE_FAT:
        return &found::ACTIVE_FAT;
    case contradiction_kind::FIELDS:
        break;
    }
    return &found::FIELDS;
}

void check_contradictions(survey *in) {
    for (const contradiction &one : in->vol.contradictions()) {
        tell(in, *kind_of(one.about), one.text);
    }
}

// In one byte systems keep a mark, in the boot sector alone.
bool are_alike(const std::vector<u8> &boot, std::vector<u8> backup) {
    constexpr u32 MARK = fat::EBR_OFFSET_FAT32 + fat::EBR_RESERVED.offset;
    backup[MARK] = boot[MARK];
    return std::equal(boot.begin(), boot.begin() + fat::PBR_SIZE, backup.begin());
}

// A backup that places the areas differently is a contradiction, and not written over.
void check_backup(survey *in) {
    const u32 sector = in->vol.boot().backup_sector;
    const bool has_other_areas =
        std::any_of(in->findings.begin(), in->findings.end(),
                    [](const finding &one) { return one.kind == &found::GEOMETRY; });
    if (!is_sector_named(sector) || !is_reserved(*in, sector) || has_other_areas ||
        are_alike(read_extent(0, 1), read_extent(sector, 1))) {
        return;
    }
    tell(in, found::BACKUP,
         fmt::format("the backup of the boot sector, in sector {}, differs from it", sector),
         "the boot sector was copied there",
         [sector](repair *plan) { plan->copy_boot_sector(sector); });
}

// ---- FSInfo ----

bool has_fsinfo(const survey &in) {
    const u32 sector = in.vol.boot().fsinfo_sector;
    return is_sector_named(sector) && is_reserved(in, sector);
}

bool has_signatures(const std::vector<u8> &fsinfo) {
    return fat::load(fsinfo.data(), fat::FSINFO_LEAD) == fat::FSINFO_LEAD_SIGNATURE &&
           fat::load(fsinfo.data(), fat::FSINFO_STRUCTURE) == fat::FSINFO_STRUCTURE_SIGNATURE &&
           fat::load(fsinfo.data(), fat::FSINFO_TRAIL) == fat::FSINFO_TRAIL_SIGNATURE;
}

void check_fsinfo(survey *in) {
    const u32 sector = in->vol.boot().fsinfo_sector;
    if (has_fsinfo(*in) && !has_signatures(read_extent(sector, 1))) {
        tell(in, found::FSINFO_SIGNATURE,
             fmt::format("FSInfo, in sector {}, has not its signatures", sector),
             "it was written anew", [sector](repair *plan) { plan->write_fsinfo(sector); });
    }
}

// ---- FAT ----

// How a system says in entry 1 that all is well.
struct state_bits {
    u32 is_clean;
    u32 has_no_errors;
};

state_bits bits_of_width() {
    return sv->fat_type == 32 ? state_bits{0x08000000, 0x04000000} : state_bits{0x8000, 0x4000};
}

u32 value_mask() {
    return sv->fat_type == 32 ? fat::FAT32_VALUE_MASK : 0xFFFF;
}

void check_media(survey *in, u32 value) {
    const u32 wanted = (0xFFFFFF00 | in->vol.boot().media) & value_mask();
    if (value != wanted) {
        tell(in, found::FAT_MEDIA,
             fmt::format("FAT entry 0 holds {:#x}, of the media byte it is {:#x}", value, wanted),
             "it was set right", [wanted](repair *plan) { plan->set_fixed_entry(0, wanted); });
    }
}

void check_end_mark(survey *in, u32 value) {
    const state_bits bits = bits_of_width();
    if (!fat::is_end_of_chain(value | bits.is_clean | bits.has_no_errors)) {
        const u32 wanted = value_mask();
        tell(in, found::FAT_END_MARK,
             fmt::format("FAT entry 1 holds {:#x}, which is no end of a chain", value),
             "it was set right", [wanted](repair *plan) { plan->set_fixed_entry(1, wanted); });
    } else if ((value & bits.has_no_errors) == 0) {
        tell(in, found::DIRTY, "the volume is marked: the medium has failed",
             "the mark was removed", [](repair *plan) { plan->mark_clean(); });
    } else if ((value & bits.is_clean) == 0) {
        tell(in, found::DIRTY, "the volume is marked: it was not closed", "the mark was removed",
             [](repair *plan) { plan->mark_clean(); });
    }
}

void check_fixed_entries(survey *in) {
    const std::vector<u8> fat = read_extent(sv->fat_start, 1);
    const u32 size = sv->fat_type / 8;
    const fat::field entries[] = {{"entry 0", 0, size}, {"entry 1", size, size}};
    check_media(in, fat::load(fat.data(), entries[0]) & value_mask());
    check_end_mark(in, fat::load(fat.data(), entries[1]) & value_mask());
}

// Systems keep their mark in the boot sector as well.
void check_boot_mark(survey *in) {
    const u32 extended = sv->fat_type == 32 ? fat::EBR_OFFSET_FAT32 : fat::EBR_OFFSET_FAT16;
    if ((fat::load(read_extent(0, 1).data() + extended, fat::EBR_RESERVED) & 1) != 0) {
        tell(in, found::DIRTY, "the boot sector is marked: it was not closed",
             "the mark was removed", [](repair *plan) { plan->mark_clean(); });
    }
}

// Without mirroring one copy is in use, and the others are left as they are.
bool is_mirroring_off(const std::vector<u8> &boot) {
    return sv->fat_type == 32 && (fat::load(boot.data(), fat::PBR32_EXTENDED_FLAGS) & 0x80) != 0;
}

void check_copies(survey *in) {
    if (is_mirroring_off(read_extent(0, 1))) {
        return;
    }
    for (const copy_difference &difference : in->table.compare_fat_copies()) {
        in->add({&found::FAT_COPIES, NO_NODE, difference.cluster,
                 fmt::format("is the first whose entry in FAT copy {} differs: {}", difference.copy,
                             counted(difference.sectors, "sector", "sectors")),
                 "the first copy was written over it",
                 [](repair *plan) { plan->make_copies_equal(); }});
    }
}

} // namespace

void check_areas(survey *in) {
    if (in->vol.boot().fat_copies == 0) {
        throw error("the boot sector names no FAT");
    }
    check_contradictions(in);
    check_backup(in);
    check_boot_mark(in);
    check_fsinfo(in);
    check_fixed_entries(in);
    check_copies(in);
}

void check_fsinfo_counts(survey *in) {
    if (!has_fsinfo(*in)) {
        return;
    }
    const u32 sector = in->vol.boot().fsinfo_sector;
    const std::vector<u8> fsinfo = read_extent(sector, 1);
    const u32 told = fat::load(fsinfo.data(), fat::FSINFO_FREE_COUNT);
    const u32 next = fat::load(fsinfo.data(), fat::FSINFO_NEXT_FREE);
    const auto mend = [sector](repair *plan) { plan->write_fsinfo(sector); };
    if (!has_signatures(fsinfo)) {
        return; // the counts are written with them
    }
    if (told != fat::FSINFO_UNKNOWN && told != in->table.free_count()) {
        tell(in, found::FSINFO_FREE,
             fmt::format("FSInfo tells {}, there are {}",
                         counted(told, "free cluster", "free clusters"), in->table.free_count()),
             "it was set right", mend);
    }
    const bool is_cluster = next >= fat::FIRST_DATA_CLUSTER && next <= in->table.last_cluster();
    if (next != fat::FSINFO_UNKNOWN && !is_cluster) {
        tell(in, found::FSINFO_NEXT,
             fmt::format("FSInfo tells {} for the next free cluster, which is none", next),
             "it was set right", mend);
    }
}

} // namespace qvol
