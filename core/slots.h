// The slots of one directory: where each lies, and a walk over them.
//
// Slot i is at byte i x 32 of the space of its directory: the fixed root area of FAT16 (first
// cluster 0), or a cluster chain.

#pragma once

#include "core/chain.h"
#include "core/record.h"
#include "core/short_name.h"

namespace core {

// The sector of a slot, and its byte offset there.
struct slot_place {
    u32 sector;
    u32 offset;
};

// The volume sector that holds sector `sector_index` of the space that begins with cluster `first`,
// for a walk that continues from `cursor`. Faults: START_OUTSIDE, START_RESERVED, ROOT_AREA_END,
// FREE_CLUSTER, CHAIN_END, those of chain_cursor::move().
[[nodiscard]] result<u32> sector_in_space(table &fat, chain_cursor *cursor, u32 first,
                                          u32 sector_index);

// Index of the sector of a space that holds a slot, and the byte offset of the slot there.
[[nodiscard]] u32 sector_index_of_slot(const volume &of, u32 slot);
[[nodiscard]] u32 offset_of_slot(const volume &of, u32 slot);

// A walk over the slots of one directory. It reads each sector once: the first one alone, since
// most walks end there, then contiguous ones together.
class slot_walk {
public:
    static constexpr u32 NO_LIMIT = ~0U;

    // What to see where a transfer moves no sector although it does not fail.
    enum class empty_read { OLD_CONTENT, ZEROS };

    // The directory begins with cluster `first`; the walk ends before slot `limit`.
    slot_walk(table &fat, u32 first, u32 limit = NO_LIMIT,
              empty_read on_empty = empty_read::OLD_CONTENT)
        : fat_(fat), first_(first), limit_(limit), on_empty_(on_empty) {}

    // From now on reads each sector alone.
    void read_singly() {
        reads_ahead_ = false;
    }

    // Continues from a position in the chain that is known.
    void start_from(const chain_cursor &at) {
        cursor_ = at;
    }

    // Allocates the buffer for a sector, if that has not been done. False without memory.
    [[nodiscard]] bool reserve();

    // The bytes of a slot, valid until the next call. Faults: NO_MEMORY, READ, SIZE_END, those of
    // sector_in_space().
    [[nodiscard]] result<u8 *> to(u32 slot) {
        if (slot - first_slot_ >= slots_) {
            const fault moved = move_to(slot);
            if (moved != fault::NONE) {
                return moved;
            }
        }
        place_.offset = (slot - first_slot_) * DENTRY_SIZE;
        return buffer_.get() + place_.offset;
    }

    // Location of the last slot.
    [[nodiscard]] const slot_place &place() const {
        return place_;
    }
    // Whether a transfer moved no sector although it did not fail.
    [[nodiscard]] bool had_empty_read() const {
        return had_empty_read_;
    }
    // The position in the chain, for reports.
    [[nodiscard]] const chain_cursor &cursor() const {
        return cursor_;
    }

private:
    [[nodiscard]] fault move_to(u32 slot); // to its sector
    [[nodiscard]] fault read_sector(bool continues);
    [[nodiscard]] u32 contiguous_sectors() const;

    table &fat_;
    u32 first_;
    u32 limit_;
    empty_read on_empty_;
    heap_ptr<u8> buffer_;
    u32 first_slot_ = 0; // in the buffer
    u32 slots_ = 0;      // in the buffer
    slot_place place_ = {};
    bool had_empty_read_ = false;
    bool reads_ahead_ = true;
    chain_cursor cursor_;
    sector_window ahead_;
};

// The first of so many consecutive free slots.
class free_span {
public:
    explicit free_span(u32 wanted) : wanted_(wanted) {}

    // Call with each slot in turn. True if the span is complete; it then ends at this slot.
    [[nodiscard]] bool add(bool is_free) {
        length_ = is_free ? length_ + 1 : 0;
        return length_ == wanted_;
    }

private:
    u32 wanted_;
    u32 length_ = 0;
};

// What one sweep over a directory finds for a new name: free slots, and the tails in use.
struct slot_survey {
    u32 limit;      // number of slots that may be used
    free_span span; // of as many slots as the name takes
    const u8 *name; // short name that gets a tail; null: none
    tail_set tails = {};
    u32 visited = 0;  // number of slots
    u32 span_end = 0; // the slot after the span; 0: not found yet

    // Call with each slot in turn, from the first one on.
    void visit(const u8 *slot) {
        if (visited >= limit) {
            return;
        }
        visited++;
        if (span_end == 0 && span.add(is_free_slot(slot))) {
            span_end = visited;
        }
        if (name != nullptr && is_named_kind(kind_of(slot))) {
            tails.mark(slot, name);
        }
    }
};

} // namespace core
