#include "core/recorder.h"

#include <cerrno>
#include <cstring>

namespace core {

s64 recorder::read(u64 offset, std::span<u8> bytes) {
    return below_.read(offset, bytes);
}

s64 recorder::write(u64 offset, std::span<const u8> bytes) {
    heap_ptr<u8> copy = copied_bytes(bytes.data(), bytes.size());
    if (copy == nullptr || !steps_.add({})) {
        return -ENOMEM;
    }
    const s64 moved = below_.write(offset, bytes);
    if (moved <= 0) {
        steps_.remove_last();
        return moved;
    }
    steps_.last() = {offset, {copy.release(), static_cast<std::size_t>(moved)}};
    return moved;
}

int recorder::flush() {
    if (!steps_.add({})) {
        return -ENOMEM;
    }
    const int flushed = below_.flush();
    if (flushed < 0) {
        steps_.remove_last();
    }
    return flushed;
}

int recorder::replay(u32 first, u32 end, medium &on) const {
    for (u32 i = first; i < end && i < steps(); i++) {
        const step &next = at(i);
        const s64 moved = next.is_flush() ? on.flush() : on.write(next.offset, next.bytes);
        if (moved != static_cast<s64>(next.bytes.size())) {
            return moved < 0 ? static_cast<int>(moved) : -EIO;
        }
    }
    return 0;
}

void recorder::clear() {
    for (const step &recorded : steps_) {
        std::free(const_cast<u8 *>(recorded.bytes.data())); // its own copy
    }
    steps_.clear();
}

} // namespace core
