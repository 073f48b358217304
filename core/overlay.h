// Changes to a medium, held in memory until they are committed or dropped.

#pragma once

#include "core/medium.h"
#include "core/resources.h"

#include <algorithm>

namespace core {

// Memory is taken for the units that were written, not for the medium. An overlay over an overlay
// is a snapshot: dropping it returns to the state in which it was made.
class overlay_medium : public medium {
public:
    // Holds units of `unit` bytes. Writes from byte `end` on, a multiple of the unit, go to the
    // medium below, which outlives the overlay.
    overlay_medium(medium &below, u32 unit, u64 end = ~u64{0})
        : below_(below), unit_(unit), end_(end) {}
    ~overlay_medium() {
        drop();
    }

    // From now on writes past the end extend the medium, as they do an image file. Bytes between
    // its old end and them read as zeros.
    void allow_growth() {
        grows_ = true;
    }

    s64 read(u64 offset, std::span<u8> bytes) override;
    s64 write(u64 offset, std::span<const u8> bytes) override;
    int flush() override; // of the medium below: held changes are not durable
    [[nodiscard]] u64 size() const override {
        return std::max(below_.size(), grown_size_);
    }

    // Writes the changes to the medium below in ascending order, neighbours in one transfer.
    // Returns 0 or a negative errno; all changes are then still held.
    [[nodiscard]] int commit();
    void drop();

    [[nodiscard]] u64 held_bytes() const {
        return u64{held_.count()} * unit_;
    }

private:
    struct held_unit {
        u64 number;
        u8 *content;
    };

    [[nodiscard]] u32 bytes_of(u64 number) const;
    [[nodiscard]] s64 read_below(u64 offset, std::span<u8> bytes) const;
    [[nodiscard]] u32 *slot_of(u64 number) const;
    [[nodiscard]] u8 *find(u64 number) const;
    [[nodiscard]] int hold(u64 number, bool is_whole, u8 **content);
    [[nodiscard]] bool grow_index();
    void reindex();
    [[nodiscard]] int commit_sorted();

    medium &below_;
    u32 unit_;
    u64 end_;
    bool grows_ = false;
    u64 grown_size_ = 0; // 0: not grown
    record_list<held_unit> held_;
    heap_ptr<u32> index_; // a hash table: position in held_ plus 1, or 0
    u32 index_size_ = 0;  // a power of 2, or 0
};

} // namespace core
