#include "core/overlay.h"

#include <cerrno>
#include <cstring>

namespace core {

namespace {

constexpr u32 COMMIT_BYTES = 64 * 1024; // of one transfer
constexpr u32 FIRST_INDEX_SIZE = 64;

} // namespace

// ---- the units --------------------------------------------------------------------------------

// The last unit may be cut by the end of the medium.
u32 overlay_medium::bytes_of(u64 number) const {
    return static_cast<u32>(bytes_within(size(), number * unit_, unit_));
}

// Where the index has the unit, or where it is to be added.
u32 *overlay_medium::slot_of(u64 number) const {
    constexpr u64 GOLDEN_RATIO = 0x9E3779B97F4A7C15;
    u32 slot = static_cast<u32>(number * GOLDEN_RATIO >> 32) & (index_size_ - 1);
    while (index_.get()[slot] != 0 && held_[index_.get()[slot] - 1].number != number) {
        slot = (slot + 1) & (index_size_ - 1);
    }
    return index_.get() + slot;
}

u8 *overlay_medium::find(u64 number) const {
    const u32 known = held_.count() != 0 ? *slot_of(number) : 0;
    return known != 0 ? held_[known - 1].content : nullptr;
}

void overlay_medium::reindex() {
    std::memset(index_.get(), 0, std::size_t{index_size_} * sizeof(u32));
    for (u32 i = 0; i < held_.count(); i++) {
        *slot_of(held_[i].number) = i + 1;
    }
}

bool overlay_medium::grow_index() {
    const u32 wanted = std::max(2 * index_size_, FIRST_INDEX_SIZE);
    heap_ptr<u32> larger = zeroed_records<u32>(wanted);
    if (larger == nullptr) {
        return false;
    }
    index_ = std::move(larger);
    index_size_ = wanted;
    reindex();
    return true;
}

// Finds the content of a unit that is to be written, in whole or in part.
int overlay_medium::hold(u64 number, bool is_whole, u8 **content) {
    *content = find(number);
    if (*content != nullptr) {
        return 0;
    }
    heap_ptr<u8> made = zeroed_bytes(unit_);
    const bool is_crowded = held_.count() >= index_size_ / 2;
    if (made == nullptr || (is_crowded && !grow_index())) {
        return -ENOMEM;
    }
    if (!is_whole) {
        const u32 wanted = bytes_of(number);
        const s64 moved = read_below(number * unit_, {made.get(), wanted});
        if (moved != wanted) {
            return moved < 0 ? static_cast<int>(moved) : -EIO;
        }
    }
    u32 *slot = slot_of(number);
    if (!held_.add({number, made.get()})) {
        return -ENOMEM;
    }
    *slot = held_.count();
    *content = made.release();
    return 0;
}

// ---- transfers --------------------------------------------------------------------------------

// A grown medium has zeros past the end of the one below.
s64 overlay_medium::read_below(u64 offset, std::span<u8> bytes) const {
    if (grown_size_ == 0) {
        return below_.read(offset, bytes);
    }
    const std::size_t present = bytes_within(below_.size(), offset, bytes.size());
    const s64 moved = present != 0 ? below_.read(offset, bytes.first(present)) : 0;
    if (moved != static_cast<s64>(present)) {
        return moved;
    }
    const std::span<u8> rest = bytes.subspan(static_cast<std::size_t>(moved));
    std::fill(rest.begin(), rest.end(), u8{0});
    return static_cast<s64>(bytes.size());
}

s64 overlay_medium::read(u64 offset, std::span<u8> bytes) {
    bytes = bytes.first(bytes_within(size(), offset, bytes.size()));
    for (std::size_t done = 0; done < bytes.size();) {
        const u64 at = offset + done;
        const u8 *content = find(at / unit_);
        const u32 skipped = static_cast<u32>(at % unit_);
        std::size_t count = std::min<std::size_t>(unit_ - skipped, bytes.size() - done);
        if (content != nullptr) {
            std::memcpy(bytes.data() + done, content + skipped, count);
            done += count;
            continue;
        }
        while (count < bytes.size() - done && find((at + count) / unit_) == nullptr) {
            count += std::min<std::size_t>(unit_, bytes.size() - done - count);
        }
        const s64 moved = read_below(at, bytes.subspan(done, count));
        if (moved != static_cast<s64>(count)) {
            return moved < 0 ? moved : static_cast<s64>(done) + moved;
        }
        done += count;
    }
    return static_cast<s64>(bytes.size());
}

s64 overlay_medium::write(u64 offset, std::span<const u8> bytes) {
    if (grows_) {
        grown_size_ = std::max(grown_size_, std::min(offset + bytes.size(), end_));
    }
    bytes = bytes.first(bytes_within(size(), offset, bytes.size()));
    for (std::size_t done = 0; done < bytes.size();) {
        const u64 at = offset + done;
        if (at >= end_) {
            const s64 moved = below_.write(at, bytes.subspan(done));
            return moved < 0 ? moved : static_cast<s64>(done) + moved;
        }
        const u64 number = at / unit_;
        const u32 skipped = static_cast<u32>(at % unit_);
        const std::size_t count = std::min<std::size_t>(unit_ - skipped, bytes.size() - done);
        u8 *content = nullptr;
        const int held = hold(number, count == bytes_of(number), &content);
        if (held < 0) {
            return held;
        }
        std::memcpy(content + skipped, bytes.data() + done, count);
        done += count;
    }
    return static_cast<s64>(bytes.size());
}

int overlay_medium::flush() {
    return below_.flush();
}

// ---- commit and drop --------------------------------------------------------------------------

int overlay_medium::commit_sorted() {
    const u32 room = std::max(COMMIT_BYTES / unit_, 1U);
    const heap_ptr<u8> buffer = zeroed_bytes(std::min(room, held_.count()), unit_);
    if (buffer == nullptr) {
        return -ENOMEM;
    }
    for (u32 first = 0; first < held_.count();) {
        const u64 number = held_[first].number;
        u32 wanted = 0; // bytes
        u32 units = 0;
        while (units < room && first + units < held_.count() &&
               held_[first + units].number == number + units) {
            std::memcpy(buffer.get() + std::size_t{units} * unit_, held_[first + units].content,
                        unit_);
            wanted += bytes_of(number + units++);
        }
        const s64 moved = below_.write(number * unit_, {buffer.get(), wanted});
        if (moved != wanted) {
            return moved < 0 ? static_cast<int>(moved) : -EIO;
        }
        first += units;
    }
    return 0;
}

int overlay_medium::commit() {
    if (held_.count() == 0) {
        return 0;
    }
    std::sort(held_.begin(), held_.end(),
              [](const held_unit &a, const held_unit &b) { return a.number < b.number; });
    const int written = commit_sorted();
    if (written == 0) {
        drop();
    } else {
        reindex();
    }
    return written;
}

void overlay_medium::drop() {
    for (const held_unit &unit : held_) {
        std::free(unit.content);
    }
    held_.clear();
    grown_size_ = 0;
    index_.reset();
    index_size_ = 0;
}

} // namespace core
