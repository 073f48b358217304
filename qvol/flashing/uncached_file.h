// A file or device whose bytes are read and written past the page cache of the system, so that what
// is read is what the medium holds. Where the system cannot do that, as on some file systems, the
// cache is emptied before the first read.

#pragma once

#include "core/resources.h"
#include "qvol/target.h"

#include <memory>
#include <span>

namespace qvol {

using core::u8;

// Memory that transfers past the page cache may use.
class page_buffer {
public:
    explicit page_buffer(std::size_t bytes); // a multiple of the page size

    [[nodiscard]] std::span<u8> bytes() const {
        return {memory_.get(), size_};
    }

private:
    core::heap_ptr<u8> memory_;
    std::size_t size_;
};

// Positions count from the start of the target.
class uncached_file {
public:
    // Opens the file of the target once more; syncs it first.
    explicit uncached_file(const target &where);

    // Reads up to the end of the target. Returns the number of bytes, or a negative errno.
    [[nodiscard]] core::s64 read(u64 offset, std::span<u8> bytes);

    // Writes all of them. Throws error.
    void write(u64 offset, std::span<const u8> bytes);

private:
    [[nodiscard]] core::s64 read_pages(u64 offset, std::span<u8> bytes);
    void write_at(int fd, u64 offset, std::span<const u8> bytes) const;

    const target &where_;
    core::unique_fd fd_;
    page_buffer buffer_;
};

} // namespace qvol
