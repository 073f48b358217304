// A directory in memory: its entries, finding them by name, and changing them.
//
// The whole space of the directory is read at once and changed in memory; write_new_clusters() and
// write_changes() bring the changes onto the medium. Adding thousands of names takes no walk for
// each: names, short names and free slots are kept in indexes.
//
// A name is found whatever its short form: first as it is spelt, then whatever its case, then by
// its 8.3 alias.

#pragma once

#include "fat/internal.h"
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

enum class kind { FILE, DIRECTORY, LINK, LABEL };

// One entry as it stands in its directory. Slots are counted in 32-byte steps from its start.
struct entry {
    std::u16string name; // the long name where its slots are whole, else the short one
    bool has_long_name = false;
    u32 first_slot = 0; // of the long name; `slot` where there is none
    u32 slot = 0;       // of the short entry
    std::array<u8, fat::DENTRY_SIZE> raw{};

    [[nodiscard]] kind type() const;
    [[nodiscard]] bool is_directory() const {
        return type() == kind::DIRECTORY;
    }
    [[nodiscard]] bool is_dot() const; // "." or ".."
    [[nodiscard]] u32 start() const;   // first cluster, 0: none
    [[nodiscard]] u32 size() const;    // bytes
    [[nodiscard]] u32 attributes() const;
    [[nodiscard]] short_name alias() const;
    [[nodiscard]] dos_time modified() const;

    void set_start(u32 cluster);
    void set_size(u32 bytes);
    void set_modified(const dos_time &stamp);
    void set_link(bool is_link);
};

// What add() is to store.
struct new_entry {
    std::u16string name;
    kind type = kind::FILE;
    u32 start = 0;
    u32 size = 0;
    dos_time modified;
};

class directory {
public:
    static constexpr u32 ROOT = 0;

    // Reads the directory that begins at a cluster, or the root. `table` has to outlive it. Throws
    // error for a broken chain and for more than a directory can hold.
    directory(fat_table &table, u32 start);

    // Makes a new one, with "." and "..", in a cluster allocated for it; nothing is written yet.
    [[nodiscard]] static directory make(fat_table &table, const directory &parent,
                                        const dos_time &modified);

    // ---- reading ----

    // All entries in their order, "." and ".." and the volume label included.
    [[nodiscard]] const std::map<u32, entry> &entries() const {
        return entries_;
    }

    // Null where there is none. The dot entries and the label are not found.
    [[nodiscard]] const entry *find(std::u16string_view name) const;

    // The same without the aliases.
    [[nodiscard]] const entry *find_name(std::u16string_view name) const;

    // Nothing but dot entries, and remains of removed names.
    [[nodiscard]] bool is_empty() const;

    [[nodiscard]] bool is_root() const {
        return is_root_;
    }

    // First cluster: 0 for the FAT16 root.
    [[nodiscard]] u32 start() const {
        return start_;
    }

    // What a ".." that leads here holds.
    [[nodiscard]] u32 parent_link() const {
        return is_root_ ? 0 : start_;
    }

    [[nodiscard]] const std::vector<u32> &clusters() const {
        return clusters_;
    }

    // Where a slot lies on the volume.
    [[nodiscard]] fat::dentry_location location(u32 slot) const;

    // ---- changing in memory ----

    // Adds an entry; the directory grows as far as it has to. Throws error where the name is in
    // use, where it cannot be stored, and where there is no room.
    const entry &add(const new_entry &wanted);

    // Keeps the exact short forms of names that are to come from becoming others' aliases.
    void reserve_short_name(std::u16string_view name) {
        aliases_.reserve(name);
    }

    // Marks the entry and its long-name slots as removed. Its chain is the caller's affair.
    void remove(const entry &removed);

    // Stores a changed short entry; its slot and its names stay.
    void update(const entry &changed);

    // Points ".." at another parent.
    void set_parent(u32 link);

    // ---- the medium ----

    // Writes the clusters that the directory has grown by: nothing refers to them yet.
    void write_new_clusters();
    void write_changes();

private:
    explicit directory(fat_table &table) : table_(&table) {}

    void load();
    void parse();
    void index_entry(const entry &added);
    void note_free_slots(u32 slot);

    [[nodiscard]] u32 capacity() const;
    [[nodiscard]] u32 usable_slots() const;
    [[nodiscard]] u8 *slot_bytes(u32 slot);
    [[nodiscard]] const u8 *slot_bytes(u32 slot) const;
    [[nodiscard]] u64 sector_of(u32 sector_index) const;

    [[nodiscard]] cased_short_name choose_alias(std::u16string_view name);
    [[nodiscard]] u32 take_slots(u32 count);
    [[nodiscard]] std::optional<u32> take_removed_slots(u32 count);
    void grow();
    void mark_slot(u32 slot);
    void write_slots(const entry &added, std::u16string_view long_name);
    void write_dirty(u32 first_sector, u32 end_sector);

    fat_table *table_;
    u32 start_ = ROOT;
    bool is_root_ = false;
    std::vector<u32> clusters_; // empty for the FAT16 root
    u32 known_clusters_ = 0;    // of those, how many were there before this program
    std::vector<u8> bytes_;
    std::vector<bool> is_dirty_; // by sector

    std::map<u32, entry> entries_;                                 // by the slot of the short entry
    std::unordered_map<std::u16string, std::vector<u32>> by_name_; // by the folded name
    std::unordered_map<std::u16string, u32> by_alias_;
    short_name_set aliases_;
    u32 end_ = 0;                      // first slot never used; all behind it are free
    std::map<u32, u32> removed_slots_; // runs of removed slots in front of the end: first, count

    // For a name of so many slots: in front of this slot no run is long enough.
    std::array<u32, fat::LONG_NAME_UNITS / fat::SLOT_UNITS + 3> search_from_{};
};

} // namespace qvol
