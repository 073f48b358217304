#include "qvol/host_attributes.h"

#include "core/resources.h"
#include "qvol/error.h"
#include "qvol/names.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

namespace qvol {

namespace {

using core::u32;

constexpr const char *XATTR = "user.DOSATTRIB";
constexpr mode_t WRITE_PERMISSIONS = S_IWUSR | S_IWGRP | S_IWOTH;

// The requests of Linux for files of a mounted FAT volume.
constexpr unsigned long GET_ATTRIBUTES = _IOR('r', 0x10, u32);
constexpr unsigned long SET_ATTRIBUTES = _IOW('r', 0x11, u32);

// No value for other text, such as the binary form of some servers.
std::optional<u32> parse_xattr(std::string text) {
    text.resize(std::min(text.find('\0'), text.size())); // some writers store a terminator
    u32 attributes = 0;
    const char *end = text.data() + text.size();
    if (!text.starts_with("0x")) {
        return std::nullopt;
    }
    const auto [rest, failure] = std::from_chars(text.data() + 2, end, attributes, 16);
    return failure == std::errc() && rest == end ? std::optional(attributes) : std::nullopt;
}

u32 read_xattr(int fd) {
    constexpr std::size_t MAX_BYTES = 256;
    std::string text(MAX_BYTES, '\0');
    const ssize_t size = fgetxattr(fd, XATTR, text.data(), text.size());
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return parse_xattr(text).value_or(0);
}

// Without attributes nothing is stored, also where the host has no extended attributes.
bool write_xattr(int fd, u32 attributes) {
    if (attributes == 0) {
        (void)fremovexattr(fd, XATTR);
        return true;
    }
    const std::string text = fmt::format("{:#x}", attributes);
    return fsetxattr(fd, XATTR, text.data(), text.size(), 0) == 0;
}

// Permissions of a directory concern its entries.
bool is_file_without_writers(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
           (status.st_mode & WRITE_PERMISSIONS) == 0;
}

// Returns false for a directory.
bool remove_writers(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
           fchmod(fd, status.st_mode & ~WRITE_PERMISSIONS & ALLPERMS) == 0;
}

} // namespace

u32 read_host_attributes(const std::string &path) {
    const core::unique_fd opened(
        open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (opened.get() < 0) {
        throw system_failure("open " + shown_bytes(path));
    }
    u32 attributes = 0;
    if (ioctl(opened.get(), GET_ATTRIBUTES, &attributes) != 0) {
        attributes = read_xattr(opened.get());
    }
    if (is_file_without_writers(opened.get())) {
        attributes |= core::ATTR_READ_ONLY;
    }
    return attributes & COPIED_ATTRIBUTES;
}

// The permission is last: without it, no extended attribute can be written.
bool write_host_attributes(int fd, u32 attributes) {
    u32 all = attributes & COPIED_ATTRIBUTES;
    if (ioctl(fd, SET_ATTRIBUTES, &all) == 0) {
        return true;
    }
    const bool is_stored = write_xattr(fd, all);
    const bool is_mode_set = (all & core::ATTR_READ_ONLY) != 0 && remove_writers(fd);
    return is_stored || (is_mode_set && all == core::ATTR_READ_ONLY);
}

} // namespace qvol
