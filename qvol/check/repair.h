// What is to be mended, gathered first and then written in an order whose interruption does no
// harm.

#pragma once

#include "qvol/session.h"

#include <array>
#include <map>
#include <optional>
#include <vector>

namespace qvol {

class repair {
public:
    explicit repair(volume &vol) : vol_(vol) {}
    repair(const repair &) = delete;
    repair &operator=(const repair &) = delete;

    // ---- slots ----
    void remove_slot(const fat::dentry_location &place);
    void write_slot(const fat::dentry_location &place, const std::array<u8, fat::DENTRY_SIZE> &raw);
    void clear_start(const fat::dentry_location &place);
    void clear_slot_start(const fat::dentry_location &place); // of a long-name slot
    void clear_slot_reserve(const fat::dentry_location &place);
    void clear_size(const fat::dentry_location &place);

    // ---- the FAT ----
    void end_chain(u32 last);
    void release_chain(u32 first, u32 count);
    void make_copies_equal() {
        makes_copies_equal_ = true;
    }
    void set_fixed_entry(u32 number, u32 value) {
        fixed_entries_[number] = value;
    }

    // ---- the reserved sectors ----
    void copy_boot_sector(u32 backup_sector) {
        backup_sector_ = backup_sector;
    }
    void write_fsinfo(u32 sector) {
        fsinfo_sector_ = sector;
    }
    void mark_clean() {
        marks_clean_ = true;
    }

    // Writes all of it and synchronises.
    void write();

private:
    void change_slot(const fat::dentry_location &place, u32 offset, std::vector<u8> bytes);
    void write_slots();
    void write_fixed_entries();
    static void write_boot_mark();

    // Bytes that are changed in a sector.
    struct change {
        u32 offset;
        std::vector<u8> bytes;
    };

    volume &vol_;
    std::map<u32, std::vector<change>> changes_; // by sector
    bool makes_copies_equal_ = false;
    std::map<u32, u32> fixed_entries_;
    std::optional<u32> backup_sector_;
    std::optional<u32> fsinfo_sector_;
    bool marks_clean_ = false;
};

} // namespace qvol
