#include "qvol/check/repair.h"

#include "core/record.h"
#include "core/table.h"
#include "qvol/check/chains.h"
#include "qvol/check/renaming.h"
#include "qvol/sectors.h"

#include <algorithm>

namespace qvol {

namespace {

void store_signatures(u8 *fsinfo) {
    core::store(fsinfo, core::FSINFO_LEAD, core::FSINFO_LEAD_SIGNATURE);
    core::store(fsinfo, core::FSINFO_STRUCTURE, core::FSINFO_STRUCTURE_SIGNATURE);
    core::store(fsinfo, core::FSINFO_TRAIL, core::FSINFO_TRAIL_SIGNATURE);
}

// Reads a sector, applies the change, and writes the sector if the change makes a difference.
void change_sector(const core::volume &on, u64 sector,
                   const std::function<void(u8 *bytes)> &change) {
    const std::vector<u8> before = read_extent(on, sector, 1);
    std::vector<u8> bytes = before;
    change(bytes.data());
    if (bytes != before) {
        write_extent(on, sector, bytes);
    }
}

} // namespace

// ---- collecting --------------------------------------------------------------------------------

void repair_plan::change_slot(const core::slot_place &location, u32 offset, std::vector<u8> bytes) {
    changes_[location.sector].push_back({location.offset + offset, std::move(bytes)});
}

void repair_plan::set_first_byte(const core::slot_place &location, u8 byte) {
    change_slot(location, core::SHORT_NAME.offset, {byte});
}

void repair_plan::write_slot(const core::slot_place &location,
                             const std::array<u8, core::DENTRY_SIZE> &raw) {
    change_slot(location, 0, {raw.begin(), raw.end()});
}

void repair_plan::change_field(const core::slot_place &location, const core::field &field,
                               u32 value) {
    std::array<u8, core::DENTRY_SIZE> slot{};
    core::store(slot.data(), field, value);
    const u8 *bytes = slot.data() + field.offset;
    change_slot(location, field.offset, {bytes, bytes + field.size});
}

void repair_plan::set_start(const core::slot_place &location, u32 cluster) {
    change_field(location, core::SHORT_START_HIGH, cluster >> 16);
    change_field(location, core::SHORT_START_LOW, cluster & 0xFFFF);
}

void repair_plan::number_slot(const core::slot_place &location, u32 ordinal, u8 checksum) {
    change_field(location, core::SLOT_ORDINAL, ordinal);
    change_field(location, core::SLOT_CHECKSUM, checksum);
}

void repair_plan::clear_slot_start(const core::slot_place &location) {
    change_field(location, core::SLOT_START, 0);
}

void repair_plan::clear_reserved_bits(const core::slot_place &location) {
    change_field(location, core::SLOT_ATTR, core::ATTR_LONG_NAME);
    change_field(location, core::SLOT_SYSID, 0);
}

void repair_plan::set_size(const core::slot_place &location, u32 bytes) {
    change_field(location, core::SHORT_FILE_SIZE, bytes);
}

// The parameters are a cluster and its link.
void repair_plan::set_link(u32 cluster, u32 value) {
    vol_.fat().set(cluster, value);
}

void repair_plan::set_attributes(const core::slot_place &location, u32 attributes) {
    change_field(location, core::SHORT_ATTR, attributes);
}

void repair_plan::make_directory(const core::slot_place &location, u32 parent_link) {
    const u32 cluster = vol_.fat().allocate(1).front();
    std::vector<u8> content(vol_.on().cluster_bytes());
    core::store_short_entry(
        content.data(),
        {.name = core::DOT_NAME, .attributes = core::ATTR_DIRECTORY, .start = cluster});
    core::store_short_entry(
        content.data() + core::DENTRY_SIZE,
        {.name = core::DOT_DOT_NAME, .attributes = core::ATTR_DIRECTORY, .start = parent_link});
    new_clusters_.emplace_back(cluster, std::move(content));
    set_start(location, cluster);
    set_size(location, 0);
}

void repair_plan::copy_clusters(const std::vector<u32> &from, u32 last,
                                const core::slot_place &location, u32 next) {
    data_copy copy{from, vol_.fat().allocate(static_cast<u32>(from.size()), last)};
    set_link(copy.to.back(), next);
    if (last == 0) {
        set_start(location, copy.to.front());
    }
    copies_.push_back(std::move(copy));
}

void repair_plan::release_chain(u32 first, u32 count) {
    vol_.fat().release(claimed_clusters(&vol_.fat(), first, count));
}

// ---- writing ----------------------------------------------------------------------------------

void repair_plan::copy_data() {
    const core::volume &on = vol_.on();
    for (const auto &[cluster, content] : new_clusters_) {
        write_extent(on, on.sector_of(cluster), content);
    }
    for (const data_copy &copy : copies_) {
        for (std::size_t i = 0; i < copy.from.size(); i++) {
            write_extent(on, on.sector_of(copy.to[i]),
                         read_extent(on, on.sector_of(copy.from[i]), on.at.sectors_per_cluster));
        }
    }
}

void repair_plan::write_slots() {
    for (const auto &[sector, changes] : changes_) {
        change_sector(vol_.on(), sector, [&list = changes](u8 *bytes) {
            for (const change &one : list) {
                std::copy(one.bytes.begin(), one.bytes.end(), bytes + one.offset);
            }
        });
    }
}

// Entries 0 and 1, which do not represent clusters, in every copy in use.
void repair_plan::write_fixed_entries() {
    const core::volume &on = vol_.on();
    for (u32 copy = 0; copy < vol_.boot().copies_in_use(); copy++) {
        change_sector(on, on.at.fat_start + u64{copy} * on.at.fat_sectors, [&](u8 *bytes) {
            for (const auto &[number, value] : fixed_entries_) {
                core::store_entry(on.at.width, number, bytes + on.entry_offset(number), value);
            }
        });
    }
}

// Its offset in the boot sector.
u32 repair_plan::extended_boot_record() const {
    return vol_.on().is_wide() ? core::EBR_OFFSET_FAT32 : core::EBR_OFFSET_FAT16;
}

void repair_plan::write_boot_label() {
    change_sector(vol_.on(), 0, [&](u8 *bytes) {
        std::copy(boot_label_->begin(), boot_label_->end(),
                  bytes + extended_boot_record() + core::EBR_VOLUME_LABEL.offset);
    });
}

void repair_plan::clear_boot_flag() {
    change_sector(vol_.on(), 0, [&](u8 *bytes) {
        core::store(bytes + extended_boot_record(), core::EBR_RESERVED, 0);
    });
}

// Data is copied to free clusters before anything leads there. Directory entries drop their
// references before the clusters are freed; backups and counts follow the data that they describe;
// the clean flag is set last.
u32 repair_plan::write(bool keeps_directories) {
    copy_data();
    write_slots();
    vol_.fat().write_changes();
    for (const auto &[directory_start, slots] : renamed_) {
        rename_entries(vol_, directory_start, slots);
    }
    u32 kept_directories = 0;
    if (!kept_chains_.empty()) {
        // Without space they stay lost, which the next check finds.
        (void)keep_lost_chains(vol_, kept_chains_, keeps_directories, &kept_directories);
    }
    if (copies_first_fat_) {
        (void)vol_.fat().mirror();
    }
    write_fixed_entries();
    if (boot_label_) {
        write_boot_label();
    }
    if (backup_sector_) {
        write_extent(vol_.on(), *backup_sector_, read_extent(vol_.on(), 0, 1));
    }
    if (fsinfo_sector_) {
        change_sector(vol_.on(), *fsinfo_sector_, store_signatures);
    }
    vol_.finish();
    if (sets_clean_) {
        fixed_entries_[1] = core::FAT_END_MARK;
        write_fixed_entries();
        clear_boot_flag();
        vol_.where().sync();
    }
    return kept_directories;
}

} // namespace qvol
