// Repairs: collected first, then written in an order that makes an interruption harmless.

#pragma once

#include "qvol/check/found_files.h"

#include <array>
#include <map>
#include <optional>
#include <vector>

namespace qvol {

class repair_plan {
public:
    explicit repair_plan(volume &vol) : vol_(vol) {}
    repair_plan(const repair_plan &) = delete;
    repair_plan &operator=(const repair_plan &) = delete;

    // ---- slots ----
    void remove_slot(const core::slot_place &location) {
        set_first_byte(location, core::NAME_DELETED);
    }
    void set_first_byte(const core::slot_place &location, u8 byte);
    void write_slot(const core::slot_place &location, const std::array<u8, core::DENTRY_SIZE> &raw);
    void clear_start(const core::slot_place &location) {
        set_start(location, 0);
    }
    void set_start(const core::slot_place &location, u32 cluster);
    // Of a long name.
    void number_slot(const core::slot_place &location, u32 ordinal, u8 checksum);
    void clear_slot_start(const core::slot_place &location);    // of a long-name slot
    void clear_reserved_bits(const core::slot_place &location); // of a long-name slot
    void clear_size(const core::slot_place &location) {
        set_size(location, 0);
    }
    void set_size(const core::slot_place &location, u32 bytes);
    void set_attributes(const core::slot_place &location, u32 attributes);

    // Gives the entry in a slot of a directory, which is given by its first cluster, another name.
    void rename(u32 directory_start, u32 slot) {
        renamed_[directory_start].push_back(slot);
    }

    // ---- the FAT ----
    void set_link(u32 cluster, u32 value);
    // Gives the directory entry at `location` a new, empty cluster. Throws no_space.
    void make_directory(const core::slot_place &location, u32 parent_link);
    void end_chain(u32 last) {
        set_link(last, core::FAT_END_MARK);
    }
    // Copies the clusters to free ones, after cluster `last` of a chain or as the start of the
    // entry at `location`. The last copy links to `next`. Throws no_space.
    void copy_clusters(const std::vector<u32> &from, u32 last, const core::slot_place &location,
                       u32 next = core::FAT_END_MARK);
    void release_chain(u32 first, u32 count);
    // `size`: bytes of the file; 0: unknown.
    void keep_chain(u32 first, u32 count, u32 size = 0) {
        kept_chains_.push_back({first, count, size});
    }
    void copy_first_fat() {
        copies_first_fat_ = true;
    }
    void set_fixed_entry(u32 number, u32 value) {
        fixed_entries_[number] = value;
    }

    // ---- the reserved sectors ----
    void set_boot_label(const short_name &label) {
        boot_label_ = label;
    }
    void copy_boot_sector(u32 backup_sector) {
        backup_sector_ = backup_sector;
    }
    void write_fsinfo(u32 sector) {
        fsinfo_sector_ = sector;
    }
    void set_clean() {
        sets_clean_ = true;
    }

    // Writes all repairs and syncs the medium. Returns the number of lost directories that have an
    // entry now: what they contain has to be checked. `keeps_directories`: see keep_lost_chains().
    u32 write(bool keeps_directories);

private:
    void change_slot(const core::slot_place &location, u32 offset, std::vector<u8> bytes);
    void change_field(const core::slot_place &location, const core::field &field, u32 value);
    void copy_data();
    void write_slots();
    void write_fixed_entries();
    [[nodiscard]] u32 extended_boot_record() const;
    void write_boot_label();
    void clear_boot_flag();

    // A changed range of bytes in a sector.
    struct change {
        u32 offset;
        std::vector<u8> bytes;
    };

    volume &vol_;
    std::map<u32, std::vector<change>> changes_; // by sector
    struct data_copy {
        std::vector<u32> from;
        std::vector<u32> to;
    };
    std::map<u32, std::vector<u32>> renamed_; // slots by directory
    std::vector<data_copy> copies_;
    std::vector<std::pair<u32, std::vector<u8>>> new_clusters_; // number, content
    std::vector<lost_chain> kept_chains_;
    bool copies_first_fat_ = false;
    std::map<u32, u32> fixed_entries_;
    std::optional<short_name> boot_label_;
    std::optional<u32> backup_sector_;
    std::optional<u32> fsinfo_sector_;
    bool sets_clean_ = false;
};

} // namespace qvol
