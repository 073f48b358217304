// qvol label, id: print or change the label and the serial number of a volume.
//
// Both are in the boot sector and its backup, the label also in the root directory. Each copy is
// durable before the next is written, and "qvol check --repair" completes what was interrupted: the
// label of the root directory counts, and of the boot sectors the first.

#include "qvol/command_line.h"
#include "qvol/commands/commands.h"
#include "qvol/formatting.h"
#include "qvol/sectors.h"
#include "qvol/whole_volume.h"

#include "core/boot_sector.h"

#include <fmt/core.h>

namespace qvol {

namespace {

// ---- boot sectors -----------------------------------------------------------------------------

// Changes the extended record of a boot sector.
using record_change = std::function<void(u8 *record)>;

// A sector without an extended record is not changed: it may contain something else.
void change_boot_record(const volume &vol, u32 sector, const record_change &change) {
    std::vector<u8> bytes = read_extent(vol.on(), sector, 1);
    const std::vector<u8> before = bytes;
    u8 *record =
        bytes.data() + (vol.on().is_wide() ? core::EBR_OFFSET_FAT32 : core::EBR_OFFSET_FAT16);
    if (!core::is_boot_signature(bytes.data()) ||
        core::load(record, core::EBR_BOOT_SIGNATURE) != core::EXTENDED_BOOT_SIGNATURE) {
        return;
    }
    change(record);
    if (bytes != before) {
        write_extent(vol.on(), sector, bytes);
    }
}

// One of the two is complete at any time.
void change_boot_records(const volume &vol, const record_change &change) {
    const u32 backup = vol.boot().backup_sector;
    change_boot_record(vol, 0, change);
    if (is_sector_given(backup) && backup < vol.boot().reserved_sectors) {
        vol.where().sync();
        change_boot_record(vol, backup, change);
    }
}

// ---- label ------------------------------------------------------------------------------------

struct label_options {
    std::optional<std::string> text; // "": none
};

void set_root_label(volume &vol, const std::string &text) {
    directory root = vol.root();
    const entry *old = root.find_label();
    const dos_time now = dos_time_of(current_time());
    if (text.empty() && old != nullptr) {
        root.remove(*old);
    } else if (old != nullptr) {
        entry changed = *old;
        const short_name label = stored_label(text);
        std::copy(label.begin(), label.end(), changed.raw.begin());
        changed.set_modified(now);
        root.update(changed);
    } else if (!text.empty()) {
        root.add_label(stored_label(text), now);
    }
    vol.commit_additions({&root});
    vol.where().sync();
}

void set_label(volume &vol, const std::string &text) {
    try {
        set_root_label(vol, text);
    } catch (const error &why) {
        throw error(fmt::format("cannot set the label of {}: {}", shown_bytes(vol.where().path()),
                                why.what()));
    }
    change_boot_records(vol, [&](u8 *record) {
        const short_name label = stored_label(text);
        std::copy(label.begin(), label.end(), record + core::EBR_VOLUME_LABEL.offset);
    });
}

int run_label(const common_options &common, const label_options &options) {
    if (options.text && !options.text->empty()) {
        (void)checked_label("label", *options.text);
    }
    return with_volume(common, options.text ? access::WRITE : access::READ, [&](volume &vol) {
        if (options.text) {
            set_label(vol, *options.text);
        }
        const std::string label = label_of(vol);
        if (common.out.is_json) {
            common.out.document({{"label", label}});
        } else if (!options.text && !label.empty()) {
            common.out.line(shown_bytes(label));
        }
        return EXIT_DONE;
    });
}

// ---- serial number ----------------------------------------------------------------------------

struct id_options {
    std::optional<std::string> number;
};

void require_boot_record(const volume &vol) {
    if (!vol.boot().has_label_field) {
        throw error(fmt::format("{} has no serial number: its boot sector has no field for one",
                                shown_bytes(vol.where().path())));
    }
}

int run_id(const common_options &common, const id_options &options) {
    const std::optional<u32> wanted =
        options.number ? std::optional(parse_volume_id("serial number", *options.number))
                       : std::nullopt;
    return with_volume(common, wanted ? access::WRITE : access::READ, [&](const volume &vol) {
        require_boot_record(vol);
        if (wanted) {
            change_boot_records(
                vol, [&](u8 *record) { core::store(record, core::EBR_VOLUME_ID, *wanted); });
        }
        const std::string serial = shown_volume_id(wanted.value_or(vol.boot().serial));
        if (common.out.is_json) {
            common.out.document({{"serial", serial}});
        } else if (!wanted) {
            common.out.line(serial);
        }
        return EXIT_DONE;
    });
}

} // namespace

void add_label(command_line *commands) {
    const auto [label, options] = commands->add({"label", "Print or change the volume label",
                                                 "  qvol label flash.img\n"
                                                 "  qvol label flash.img SYSTEM\n"
                                                 "  qvol label flash.img \"\"    no label"},
                                                run_label);
    label.value("TEXT", &options->text, "The new label; empty: none");
}

void add_id(command_line *commands) {
    const auto [id, options] = commands->add({"id", "Print or change the serial number",
                                              "  qvol id flash.img\n"
                                              "  qvol id flash.img 1A2B-3C4D"},
                                             run_id);
    id.value("XXXX-XXXX", &options->number, "The new serial number, in hexadecimal digits");
}

} // namespace qvol
