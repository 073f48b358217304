// The beginning of one directory in memory, with an index of its names.

#pragma once

#include "core/long_name.h"
#include "core/slots.h"

namespace core {

// Whole sectors of a directory from its first one on, as far as walks have been, with the content
// that the medium has. The owner reports every sector that is written and every change of the FAT.
//
// What a walk over these slots finds is known without one, unless the directory is unusual: it has
// an invalid entry, or long-name slots that are not those of one name. Such a directory is not
// stored, nor one of more than MAX_SLOTS slots; without memory nothing is.
//
// Has no destructor: an object of static lifetime needs none. The owner calls clear().
class directory_cache {
public:
    // Frees the memory.
    void clear();

    // Continues with the directory that begins with cluster `first`, 0 for the root area of FAT16.
    void select(const volume &of, u32 first);

    // Whether the directory, the one selected last, is stored.
    [[nodiscard]] bool is_usable() const {
        return is_usable_;
    }

    // ---- what walks over the directory meet ----

    // Call with each slot in turn that a walk over the directory visits, or that ends it.
    void meet(const slot_walk &walk, u32 slot, const result<u8 *> &found);

    // ---- what walks over the directory would find ----

    static constexpr u32 NONE = ~0U;

    // Whether the directory is known up to its end.
    [[nodiscard]] bool is_complete() const {
        return is_usable_ && (end_ < slots_ || is_end_known_);
    }
    // Whether it ends with an unused slot.
    [[nodiscard]] bool has_unused() const {
        return end_ < slots_;
    }
    // The slot from which on a walk can continue that has met nothing: before all of the name that
    // may have begun.
    [[nodiscard]] u32 walk_start() const;

    // Index of the first short entry with the short name, or with the long one; NONE if it is not
    // in the known part.
    [[nodiscard]] u32 find_short(const u8 *name) const;
    [[nodiscard]] u32 find_long(const u16 *units) const;

    // What the survey of a walk up to the end finds.
    void survey(slot_survey *result);

    // Sets the cursor of a walk over the directory that begins with `first`, if it helps on the way
    // to sector `sector_index`.
    void set_cursor(u32 first, u32 sector_index, chain_cursor *cursor) const;

    // ---- the medium ----

    // The content of a sector, null if it is not known.
    [[nodiscard]] const u8 *find_sector(u64 sector) const;

    // These sectors have this content now.
    void sectors_written(u64 sector, u32 count, const u8 *content);
    // The FAT entry of a cluster changes.
    void link_changed(u32 cluster);

private:
    static constexpr u32 MAX_SLOTS = 65535;
    static constexpr u32 BUCKETS = 2048;
    static constexpr u32 FILTER_BITS = 8192;
    static constexpr u16 LIST_END = 0xFFFF;

    enum key : u32 { SHORT, LONG, TAIL, KEYS };

    // A slot in the lists of the entries with like keys. A key that an entry does not have is in no
    // list.
    struct links {
        u16 next[KEYS];
    };
    struct bucket_table {
        u16 first[KEYS][BUCKETS];
        u8 clusters[FILTER_BITS / 8]; // which may be of the directory, by the low bits
    };
    struct long_name {
        u16 units[MAX_NAME_UNITS + 1];
        u32 slots; // 0: the entry has none
    };

    [[nodiscard]] const u8 *slot_at(u32 slot) const {
        return content_ + std::size_t{slot} * DENTRY_SIZE;
    }
    [[nodiscard]] u32 slots_per_sector() const {
        return of_.at.sector_size / DENTRY_SIZE;
    }
    void meet_sector(u32 slot, const u8 *content, const chain_cursor &at);
    [[nodiscard]] bool grow();
    [[nodiscard]] bool add_cluster(u32 cluster);
    [[nodiscard]] u32 position_of(u32 cluster) const;
    [[nodiscard]] u32 first_slot_of(u64 sector) const;
    [[nodiscard]] u32 end_from(u32 slot, u32 to) const;
    [[nodiscard]] bool get_long_name(u32 slot, long_name *name) const;
    template <typename Use>
    [[nodiscard]] bool each_key(u32 slot, Use use) const;
    template <typename Matches>
    [[nodiscard]] u32 first_match(key of, u32 bucket, Matches matches) const;
    [[nodiscard]] bool insert(u32 from, u32 to);
    void remove(u32 from, u32 to);
    void unlink(key of, u32 bucket, u32 slot);
    void write_sector(u32 slot, const u8 *content);
    void rebuild(u32 from, u32 to);
    void give_up();

    volume of_;
    u32 first_ = NONE;
    bool is_usable_ = false;
    bool is_end_known_ = false; // the space ends after the known slots
    u32 slots_ = 0;             // known
    u32 room_ = 0;              // for slots
    u32 end_ = 0;               // the first unused slot; `slots_` without one
    u32 first_free_ = 0;        // no slot before it is free
    u32 cluster_count_ = 0;
    u32 cluster_room_ = 0;
    u8 *content_ = nullptr;
    links *links_ = nullptr;
    bucket_table *buckets_ = nullptr;
    u32 *clusters_ = nullptr;
    chain_cursor last_; // at the last known cluster
};

} // namespace core
