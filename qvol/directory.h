// A directory in memory: finds entries by name and changes them.
//
// All sectors of the directory are read at once and changed in memory. write_new_clusters() and
// write_changes() write them back. Names, short names and free slots are indexed, so adding
// thousands of names does not scan the directory for each; the names only if one is searched for.
//
// A name is found by its exact spelling, else in another case, else by its 8.3 alias.

#pragma once

#include "core/long_name.h"
#include "core/record.h"
#include "core/slots.h"
#include "qvol/fat_table.h"
#include "qvol/names.h"
#include "qvol/short_name.h"
#include "qvol/times.h"

#include <array>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace qvol {

// No slot is free, and the directory cannot grow.
class directory_full : public error {
public:
    using error::error;
};

enum class kind { FILE, DIRECTORY, LINK, LABEL };

// An entry of a directory. Slots are numbered from the start of the directory, 32 bytes each.
struct entry {
    std::u16string name; // the long name if its slots are complete, else the short one
    bool has_long_name = false;
    u32 first_slot = 0;  // of the long name; equal to `slot` without one
    u32 slot = 0;        // of the short entry
    bool is_wide = true; // of FAT32: the high half of the first cluster counts
    std::array<u8, core::DENTRY_SIZE> raw{};

    [[nodiscard]] kind type() const;
    [[nodiscard]] bool is_directory() const {
        return type() == kind::DIRECTORY;
    }
    [[nodiscard]] bool is_dot() const; // "." or ".."
    [[nodiscard]] u32 start() const;   // first cluster, 0: no clusters
    [[nodiscard]] u32 size() const;    // bytes
    [[nodiscard]] u32 attributes() const;
    [[nodiscard]] short_name alias() const;
    [[nodiscard]] dos_time modified() const;

    void set_start(u32 cluster);
    void set_size(u32 bytes);
    void set_modified(const dos_time &stamp);
    void set_attributes(u32 attributes);
    void set_link(bool is_link);
};

// The fields of an entry to add.
struct new_entry {
    std::u16string name;
    kind type = kind::FILE;
    u32 start = 0;
    u32 size = 0;
    dos_time modified;
    bool allows_long_name = true;      // if not, names that do not fit 8.3 are refused
    std::optional<short_name> alias{}; // one that no entry has; no value: a new one
    u32 attributes = 0;                // besides that of its type
};

class directory {
public:
    static constexpr u32 ROOT = 0;

    // Reads the directory that starts at a cluster, or the root. `table` must outlive it. Throws
    // error if the chain is broken or longer than a directory can be.
    directory(fat_table &table, u32 start);

    // Makes a new directory with "." and ".." and allocates its cluster. Does not write anything
    // yet.
    [[nodiscard]] static directory make(fat_table &table, const directory &parent,
                                        const dos_time &modified);

    // ---- reading ----

    // All entries by their slots, including ".", ".." and the volume label.
    [[nodiscard]] const std::map<u32, entry> &entries() const {
        return entries_;
    }

    // Null if there is no such entry. Does not find dot entries and the label.
    [[nodiscard]] const entry *find(std::u16string_view name) const;

    // Like find(), but not by aliases.
    [[nodiscard]] const entry *find_name(std::u16string_view name) const;

    // The volume label, or null. The first one that is not blank counts, else the formatter's blank
    // one.
    [[nodiscard]] const entry *find_label() const;

    // True if there are no entries but the dot entries.
    [[nodiscard]] bool is_empty() const;

    [[nodiscard]] bool is_root() const {
        return is_root_;
    }

    // First cluster; 0 for the FAT16 root.
    [[nodiscard]] u32 start() const {
        return start_;
    }

    // First cluster in a ".." that leads here.
    [[nodiscard]] u32 parent_link() const {
        return is_root_ ? 0 : start_;
    }

    [[nodiscard]] const std::vector<u32> &clusters() const {
        return clusters_;
    }

    // Sector and offset of a slot.
    [[nodiscard]] core::slot_place location(u32 slot) const;

    // ---- changing in memory ----

    // Adds an entry; the directory grows if necessary. Throws error if the name exists or is
    // invalid, or if there is no space.
    const entry &add(const new_entry &wanted);

    // Adds a volume label. Throws error if there is no space.
    void add_label(const short_name &label, const dos_time &modified);

    // Prevents the exact short form of a name that will be added from becoming another name's
    // alias.
    void reserve_short_name(std::u16string_view name) {
        names().aliases.reserve(name);
    }

    // Marks the entry and its long-name slots as removed. Does not free its chain.
    void remove(const entry &removed);

    // Stores a changed short entry of the same slot and names.
    void update(const entry &changed);

    // Sets the first cluster in "..".
    void set_parent(u32 link);

    // ---- the medium ----

    // Writes the clusters that were added; nothing on the medium refers to them yet.
    void write_new_clusters();
    void write_changes();

private:
    explicit directory(fat_table &table) : table_(&table) {}

    // The entries but dot entries and labels, by their names.
    struct name_index {
        std::unordered_map<std::u16string, std::vector<u32>> by_name; // folded
        std::unordered_map<std::u16string, u32> by_alias;             // folded
        short_name_set aliases;

        void add(const entry &added);
        void remove(const entry &removed);
    };

    void load();
    void parse();
    [[nodiscard]] name_index &names() const;
    void add_removed_slot(u32 slot);

    [[nodiscard]] const core::volume &on() const {
        return table_->on();
    }
    [[nodiscard]] u32 slots_per_sector() const;
    [[nodiscard]] u32 capacity() const;
    [[nodiscard]] u32 usable_slots() const;
    [[nodiscard]] u8 *slot_bytes(u32 slot);
    [[nodiscard]] const u8 *slot_bytes(u32 slot) const;
    [[nodiscard]] u64 sector_of(u32 sector_index) const;

    [[nodiscard]] cased_short_name choose_alias(const new_entry &wanted);
    [[nodiscard]] u32 allocate_slots(u32 count);
    [[nodiscard]] std::optional<u32> reuse_removed_slots(u32 count);
    void grow();
    void mark_dirty(u32 slot);
    void write_slots(const entry &added, std::u16string_view long_name);
    void write_dirty(u32 first_sector, u32 end_sector);

    fat_table *table_;
    u32 start_ = ROOT;
    bool is_root_ = false;
    std::vector<u32> clusters_; // empty for the FAT16 root
    u32 written_clusters_ = 0;  // number of those that are on the medium already
    std::vector<u8> bytes_;
    std::vector<bool> is_dirty_; // by sector

    std::map<u32, entry> entries_;            // by the slot of the short entry
    mutable std::optional<name_index> names_; // made by the first search for a name
    u32 end_ = 0;                             // first unused slot; all after it are unused, too
    std::map<u32, u32> removed_slots_;        // spans of removed slots before the end: first, count

    // By number of slots: no span before this slot is long enough.
    std::array<u32, core::MAX_LONG_SLOTS + 2> search_from_{};
};

} // namespace qvol
