// qvol pool, log, mirror, compact: commands for the volume as a whole.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/whole_volume.h"

#include <fmt/core.h>

namespace qvol {

namespace {

// ---- pool, log ----

// The driver's library determines the width by the number of clusters alone.
void refuse_other_widths(const volume &vol, const reserved_file &file) {
    const core::areas &at = vol.on().at;
    const u32 by_count = at.clusters >= core::FAT32_MIN_CLUSTERS   ? 32
                         : at.clusters >= core::FAT16_MIN_CLUSTERS ? 16
                                                                   : 12;
    if (at.width == 12 || at.width != by_count) {
        throw error(
            fmt::format("cannot make /{}: the ZUQ driver cannot use FAT{} with {} clusters, "
                        "only FAT16, and FAT32 with at least {}",
                        file.name, at.width, at.clusters, core::FAT32_MIN_CLUSTERS));
    }
}

// The driver's library reads the first FAT, whatever the boot sector states.
void refuse_other_active_fat(const volume &vol, const reserved_file &file) {
    if (vol.boot().active_fat.value_or(0) != 0) {
        throw error(fmt::format("cannot make /{}: the boot sector states that only FAT copy {} is "
                                "in use, the ZUQ driver uses copy 0",
                                file.name, *vol.boot().active_fat));
    }
}

int make_reserved(const common_options &common, const reserved_file &file) {
    return with_volume(common, access::WRITE, [&](volume &vol) {
        refuse_other_widths(vol, file);
        refuse_other_active_fat(vol, file);
        make_reserved_file(vol, file);
        const resolved_path where = resolve(vol, fmt::format("/{}", file.name));
        common.out.remark(fmt::format("made /{}, {}", file.name, shown_size(where.found->size())));
        if (common.out.is_json) {
            common.out.document({{"made", entry_json(vol, where.path, *where.found)}});
        }
        return EXIT_DONE;
    });
}

// ---- mirror ----

void refuse_without_mirroring(const volume &vol) {
    if (vol.boot().active_fat) {
        throw error(fmt::format("cannot make the FAT copies of {} equal: its boot sector states "
                                "that only copy {} is in use",
                                shown_bytes(vol.where().path()), *vol.boot().active_fat));
    }
}

int run_mirror(const common_options &common) {
    return with_volume(common, access::WRITE, [&](volume &vol) {
        refuse_without_mirroring(vol);
        const u64 changed = vol.fat().mirror();
        common.out.remark(changed == 0 ? "all FAT copies are equal"
                                       : counted(changed, "sector", "sectors") +
                                             " of the FAT copies changed");
        if (common.out.is_json) {
            common.out.document(
                {{"fat_copies", vol.boot().fat_copies}, {"changed_sectors", changed}});
        }
        return EXIT_DONE;
    });
}

// ---- compact ----

int run_compact(const common_options &common) {
    common.refuse_backup_boot();
    target where(common.image, access::WRITE);
    if (where.has_fixed_size()) {
        throw error(fmt::format("cannot cut {}: it is a {}, only image files can be cut",
                                shown_bytes(common.image),
                                where.is_part() ? "part of a disk" : "device"));
    }
    volume vol(where, common.encoding);
    const u64 before = where.size();
    const u64 length = std::min(before, used_length(vol));
    vol.finish();
    where.resize(length);
    where.sync();
    common.out.remark(fmt::format("{}: {} cut to {}", shown_bytes(common.image), shown_size(before),
                                  shown_size(length)));
    if (common.out.is_json) {
        common.out.document({{"bytes_before", before}, {"bytes", length}});
    }
    return EXIT_DONE;
}

} // namespace

void add_pool(command_line *commands) {
    commands->add({"pool", "Make the pool file of the ZUQ driver", "  qvol pool flash.img"},
                  [](const common_options &common) { return make_reserved(common, POOL_FILE); });
}

void add_log(command_line *commands) {
    commands->add({"log", "Make the log file of the ZUQ driver", "  qvol log flash.img"},
                  [](const common_options &common) { return make_reserved(common, LOG_FILE); });
}

void add_mirror(command_line *commands) {
    commands->add({"mirror", "Make all FAT copies equal to the first", "  qvol mirror flash.img"},
                  run_mirror);
}

void add_compact(command_line *commands) {
    commands->add({"compact", "Cut an image file to its used length", "  qvol compact flash.img"},
                  run_compact);
}

} // namespace qvol
