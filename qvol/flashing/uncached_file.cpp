#include "qvol/flashing/uncached_file.h"

#include "qvol/error.h"
#include "qvol/names.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

namespace qvol {

namespace {

using core::s64;

// Transfers past the cache are in multiples of this, from multiples of this on: no device has
// larger sectors.
constexpr u64 PAGE_BYTES = 4096;
constexpr std::size_t BUFFER_BYTES = std::size_t{4} << 20;

u64 page_before(u64 offset) {
    return offset / PAGE_BYTES * PAGE_BYTES;
}

int open_again(const target &where, int flags) {
    return open(fmt::format("/proc/self/fd/{}", where.descriptor()).c_str(),
                flags | (where.is_writable() ? O_RDWR : O_RDONLY) | O_CLOEXEC);
}

// Some systems refuse only the transfer.
bool can_read_pages(int fd, std::span<u8> page) {
    return fd >= 0 && pread(fd, page.data(), page.size(), 0) >= 0;
}

int open_uncached(const target &where) {
    where.sync();
    const page_buffer probe(PAGE_BYTES);
    core::unique_fd direct(open_again(where, O_DIRECT));
    if (can_read_pages(direct.get(), probe.bytes())) {
        return direct.release();
    }
    core::unique_fd cached(open_again(where, 0));
    if (cached.get() < 0) {
        throw system_failure("open " + shown_bytes(where.path()));
    }
    posix_fadvise(cached.get(), 0, 0, POSIX_FADV_DONTNEED);
    return cached.release();
}

} // namespace

page_buffer::page_buffer(std::size_t bytes)
    : memory_(static_cast<u8 *>(std::aligned_alloc(PAGE_BYTES, bytes))), size_(bytes) {
    if (memory_ == nullptr) {
        throw std::bad_alloc();
    }
}

uncached_file::uncached_file(const target &where)
    : where_(where), fd_(open_uncached(where)), buffer_(BUFFER_BYTES) {}

// ---- reading ----

s64 uncached_file::read(u64 offset, std::span<u8> bytes) {
    const std::size_t wanted = core::bytes_within(where_.size(), offset, bytes.size());
    std::size_t done = 0;
    while (done < wanted) {
        const s64 count =
            read_pages(where_.offset() + offset + done, bytes.subspan(done, wanted - done));
        if (count < 0) {
            return count;
        }
        if (count == 0) {
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    return static_cast<s64>(done);
}

// One transfer of whole pages. Returns the number of the requested bytes in them.
s64 uncached_file::read_pages(u64 offset, std::span<u8> bytes) {
    const u64 start = page_before(offset);
    const auto skipped = static_cast<std::size_t>(offset - start);
    const u64 end = page_before(offset + bytes.size() + PAGE_BYTES - 1);
    const std::span<u8> pages = buffer_.bytes().first(
        static_cast<std::size_t>(std::min<u64>(end - start, buffer_.bytes().size())));
    ssize_t count = -1;
    do {
        count = pread(fd_.get(), pages.data(), pages.size(), static_cast<off_t>(start));
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        return -errno;
    }
    const auto present = static_cast<std::size_t>(count);
    const std::size_t usable = std::min(present - std::min(present, skipped), bytes.size());
    std::copy_n(pages.data() + skipped, usable, bytes.data());
    return static_cast<s64>(usable);
}

// ---- writing ----

// Whole pages past the cache, their rest at the ends through it.
void uncached_file::write(u64 offset, std::span<const u8> bytes) {
    while (!bytes.empty()) {
        const u64 at = where_.offset() + offset;
        std::span<const u8> piece;
        if (at % PAGE_BYTES != 0 || bytes.size() < PAGE_BYTES) {
            const u64 to_page = PAGE_BYTES - at % PAGE_BYTES;
            piece = bytes.first(static_cast<std::size_t>(std::min<u64>(to_page, bytes.size())));
            write_at(where_.descriptor(), at, piece);
        } else {
            const std::size_t most = std::min(bytes.size(), buffer_.bytes().size());
            piece = bytes.first(static_cast<std::size_t>(page_before(most)));
            std::copy(piece.begin(), piece.end(), buffer_.bytes().begin());
            write_at(fd_.get(), at, buffer_.bytes().first(piece.size()));
        }
        offset += piece.size();
        bytes = bytes.subspan(piece.size());
    }
}

void uncached_file::write_at(int fd, u64 offset, std::span<const u8> bytes) const {
    while (!bytes.empty()) {
        const ssize_t written = pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (written < 0 && errno != EINTR) {
            throw system_failure("write to " + shown_bytes(where_.path()));
        }
        const std::size_t count = written > 0 ? static_cast<std::size_t>(written) : 0;
        offset += count;
        bytes = bytes.subspan(count);
    }
}

} // namespace qvol
