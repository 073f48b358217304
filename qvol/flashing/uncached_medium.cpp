#include "qvol/flashing/uncached_medium.h"

namespace qvol {

core::s64 uncached_medium::read(u64 offset, std::span<u8> bytes) {
    return file_.read(offset, bytes);
}

u64 uncached_medium::size() const {
    return size_;
}

} // namespace qvol
