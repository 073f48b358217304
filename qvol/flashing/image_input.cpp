#include "qvol/flashing/image_input.h"

#include "core/medium.h"
#include "qvol/error.h"
#include "qvol/names.h"

#include <algorithm>

#include <fcntl.h>
#include <unistd.h>

namespace qvol {

namespace {

int open_input(const std::string &path) {
    return path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                       : open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

// Also of a device. Standard input may have been read by others: it counts from where it is.
std::optional<core::u64> size_of_input(int fd) {
    const off_t now = lseek(fd, 0, SEEK_CUR);
    const off_t end = now == 0 ? lseek(fd, 0, SEEK_END) : -1;
    if (end < 0 || lseek(fd, 0, SEEK_SET) != 0) {
        return std::nullopt;
    }
    return static_cast<core::u64>(end);
}

} // namespace

image_input::image_input(const std::string &path)
    : path_(path == "-" ? "standard input" : path), fd_(open_input(path)) {
    if (fd_.get() < 0) {
        throw system_failure("open " + shown_bytes(path_));
    }
    size_ = size_of_input(fd_.get());
}

std::span<const core::u8> image_input::peek(std::size_t count) {
    std::vector<core::u8> head(count);
    std::size_t present = 0;
    for (std::size_t more = 1; more != 0 && present < count; present += more) {
        more = read_some(std::span(head).subspan(present));
    }
    head.resize(present);
    peeked_ = std::move(head);
    return peeked_;
}

std::size_t image_input::read_some(std::span<core::u8> bytes) {
    if (!peeked_.empty()) {
        const std::size_t count = std::min(bytes.size(), peeked_.size());
        std::copy_n(peeked_.begin(), count, bytes.begin());
        peeked_.erase(peeked_.begin(), peeked_.begin() + static_cast<std::ptrdiff_t>(count));
        return count;
    }
    ssize_t count = -1;
    do {
        count = ::read(fd_.get(), bytes.data(), bytes.size());
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        throw system_failure("read " + shown_bytes(path_));
    }
    return static_cast<std::size_t>(count);
}

void image_input::read(std::span<core::u8> bytes) {
    while (!bytes.empty()) {
        const std::size_t count = read_some(bytes);
        if (count == 0) {
            throw error("cannot read " + shown_bytes(path_) + ": it is cut");
        }
        bytes = bytes.subspan(count);
    }
}

bool image_input::read_at(core::u64 offset, std::span<core::u8> bytes) const {
    core::file_medium file(fd_.get(), *size_);
    return file.read(offset, bytes) == static_cast<core::s64>(bytes.size());
}

} // namespace qvol
