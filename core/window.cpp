#include "core/window.h"

#include <algorithm>

namespace core {

namespace {

constexpr u32 MAX_BYTES = 64 * 1024;

} // namespace

u8 *sector_window::find(u64 sector) const {
    return sector >= first_ && sector - first_ < count_
               ? buffer_.get() + (sector - first_) * sector_size_
               : nullptr;
}

// Replaces the buffer by a larger one, without zeroing it: every byte is to be read into. The old
// content is lost.
bool sector_window::grow(const volume &of, u32 sectors) {
    void *larger = std::malloc(std::size_t{sectors} * of.at.sector_size);
    if (larger == nullptr) {
        return false;
    }
    buffer_.reset(static_cast<u8 *>(larger));
    sector_size_ = of.at.sector_size;
    room_ = sectors;
    count_ = 0;
    return true;
}

bool sector_window::reserve(const volume &of) {
    return buffer_ != nullptr || grow(of, 1);
}

fault sector_window::load(const volume &of, u64 sector) {
    if (!reserve(of)) {
        return fault::NO_MEMORY;
    }
    count_ = 0;
    if (of.read(sector, buffer_.get(), 1) != 1) {
        return fault::READ;
    }
    first_ = sector;
    count_ = 1;
    return fault::NONE;
}

void sector_window::set(u64 sector, const u8 *content) {
    std::memcpy(buffer_.get(), content, sector_size_);
    first_ = sector;
    count_ = 1;
}

bool sector_window::read_ahead(const volume &of, u64 sector, u32 count) {
    count = std::min(count, MAX_BYTES / of.at.sector_size);
    if (count <= 1 || sector < singles_below_ || (room_ < count && !grow(of, count))) {
        return false;
    }
    count_ = 0;
    if (of.read_ahead(sector, buffer_.get(), count) != static_cast<int>(count)) {
        singles_below_ = sector + count;
        return false;
    }
    first_ = sector;
    count_ = count;
    return true;
}

void sector_window::refresh(u64 sector, const u8 *content) const {
    u8 *known = find(sector);
    if (known != nullptr) {
        std::memcpy(known, content, sector_size_);
    }
}

void sector_window::forget(u64 sector) {
    if (find(sector) != nullptr) {
        count_ = 0;
    }
}

} // namespace core
