#include "qvol/target.h"

#include "core/geometry.h"
#include "qvol/error.h"
#include "qvol/mounted.h"
#include "qvol/names.h"
#include "qvol/output.h"
#include "qvol/partitions.h"
#include "qvol/sizes.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <fstream>
#include <vector>

#include <fcntl.h>
#include <fmt/core.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace qvol {

namespace {

// ---- opening ----------------------------------------------------------------------------------

struct stat status_of(int fd, const std::string &path) {
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        throw system_failure("stat " + shown_bytes(path));
    }
    return status;
}

// O_EXCL fails for a device that the system or another program uses, also in other mount
// namespaces. O_NONBLOCK: open() must not wait for a pipe, which is refused later.
int opening_flags(const std::string &path, access wanted) {
    if (wanted == access::READ) {
        return O_RDONLY | O_CLOEXEC | O_NONBLOCK;
    }
    struct stat status {};
    const bool is_device = stat(path.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
    return O_RDWR | O_CLOEXEC | O_NONBLOCK | (is_device ? O_EXCL : 0);
}

void refuse_mounted(const struct stat &status, const std::string &path) {
    const std::optional<std::string> point = mount_point_using(status);
    if (point) {
        throw error(fmt::format("cannot write to {}: it is mounted on {}; unmount it first",
                                shown_bytes(path), shown_bytes(*point)));
    }
}

[[noreturn]] void refuse_busy(const std::string &path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0) {
        refuse_mounted(status, path);
    }
    throw error("cannot write to " + shown_bytes(path) +
                ": it is in use by the system; unmount it first");
}

int open_target(const std::string &path, access wanted) {
    const int fd = open(path.c_str(), opening_flags(path, wanted));
    if (fd < 0 && errno == EBUSY) {
        refuse_busy(path);
    }
    if (fd < 0) {
        throw system_failure("open " + shown_bytes(path));
    }
    return fd;
}

void lock_target(int fd, const std::string &path, access wanted) {
    const int kind = wanted == access::WRITE ? LOCK_EX : LOCK_SH;
    if (flock(fd, kind | LOCK_NB) == 0) {
        return;
    }
    if (errno == EWOULDBLOCK) {
        throw error(
            fmt::format("cannot lock {}: locked by another program; try again when it has finished",
                        shown_bytes(path)));
    }
    throw system_failure("lock " + shown_bytes(path));
}

// Of two sizes that the system states for a device, the smaller one counts.
u64 device_size(int fd, const std::string &path) {
    u64 by_request = 0;
    const off_t by_seeking = lseek(fd, 0, SEEK_END);
    if (ioctl(fd, BLKGETSIZE64, &by_request) != 0 || by_seeking < 0) {
        throw system_failure("get the size of " + shown_bytes(path));
    }
    return std::min(by_request, static_cast<u64>(by_seeking));
}

u64 size_of(int fd, const struct stat &status, const std::string &path) {
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) {
        throw error("cannot open " + shown_bytes(path) +
                    ": neither an image file nor a block device");
    }
    const u64 size =
        S_ISREG(status.st_mode) ? static_cast<u64>(status.st_size) : device_size(fd, path);
    if (size == 0) {
        throw error("cannot open " + shown_bytes(path) + ": it is empty");
    }
    return size;
}

// ---- places -----------------------------------------------------------------------------------

bool is_file(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && (S_ISREG(status.st_mode) || S_ISBLK(status.st_mode));
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

u64 parse_position(const std::string &text, const std::string &number) {
    const std::optional<u64> bytes = bytes_of(number, "s");
    if (!bytes) {
        throw usage_error(fmt::format("{}: \"{}\" is not a number of bytes such as 1048576, "
                                      "0x100000, 1M or 2048s",
                                      shown_bytes(text), shown_bytes(number)));
    }
    return *bytes;
}

u32 parse_partition(const std::string &text, const std::string &number) {
    u32 result = 0;
    const char *end = number.data() + number.size();
    const auto [rest, failure] = std::from_chars(number.data(), end, result);
    if (failure != std::errc() || rest != end || result == 0) {
        throw usage_error(fmt::format("{}: \"{}\" is not the number of a partition",
                                      shown_bytes(text), shown_bytes(number)));
    }
    return result;
}

void parse_range(const std::string &text, const std::string &range, place *where) {
    const std::size_t plus = range.find('+');
    where->offset = parse_position(text, range.substr(0, plus));
    if (plus != std::string::npos) {
        where->bytes = parse_position(text, range.substr(plus + 1));
    }
}

// No value if the last mark belongs to the name of a file: no number follows, or no file precedes.
std::optional<place> parse_part(const std::string &text) {
    const std::size_t mark = text.find_last_of("#@");
    if (mark == std::string::npos || mark + 1 == text.size() || !is_digit(text[mark + 1]) ||
        !is_file(text.substr(0, mark))) {
        return std::nullopt;
    }
    place where = {text.substr(0, mark), 0, std::nullopt, std::nullopt};
    const std::string number = text.substr(mark + 1);
    if (text[mark] == '#') {
        where.partition = parse_partition(text, number);
    } else {
        parse_range(text, number, &where);
    }
    return where;
}

// Where the device begins on its disk if it is a partition: the kernel counts in units of 512
// bytes.
u64 start_on_disk(const struct stat &status) {
    constexpr u64 UNIT_BYTES = 512;
    u64 start = 0;
    if (S_ISBLK(status.st_mode)) {
        std::ifstream(fmt::format("/sys/dev/block/{}:{}/start", major(status.st_rdev),
                                  minor(status.st_rdev))) >>
            start;
    }
    return start * UNIT_BYTES;
}

} // namespace

place parse_place(const std::string &text) {
    struct stat status {};
    const bool is_name = lstat(text.c_str(), &status) == 0;
    const std::optional<place> part = is_name ? std::nullopt : parse_part(text);
    return part.value_or(place{text, 0, std::nullopt, std::nullopt});
}

bool is_block_device(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISBLK(status.st_mode);
}

// ---- target -----------------------------------------------------------------------------------

struct target::open_file {
    open_file(std::string name, access wanted);

    std::string path;
    core::unique_fd fd;
    bool is_writable;
    bool is_device = false;
    u64 size = 0;           // bytes
    u64 offset_on_disk = 0; // of a device that is a partition
};

target::open_file::open_file(std::string name, access wanted)
    : path(std::move(name)), fd(open_target(path, wanted)), is_writable(wanted == access::WRITE) {
    if (is_writable) {
        // If the reader of the output ends, SIGPIPE must not end the program between two writes.
        (void)std::signal(SIGPIPE, SIG_IGN);
    }
    lock_target(fd.get(), path, wanted);
    const struct stat status = status_of(fd.get(), path);
    is_device = S_ISBLK(status.st_mode);
    if (is_writable) {
        refuse_mounted(status, path);
    }
    size = size_of(fd.get(), status, path);
    offset_on_disk = start_on_disk(status);
}

target::target(const std::string &name, access wanted)
    : name_(name), file_(std::make_shared<open_file>(parse_place(name).path, wanted)),
      size_(file_->size), own_medium_(file_->fd.get(), size_, file_->is_writable) {
    const place where = parse_place(name);
    if (where.is_part()) {
        set_part(where);
    }
}

target::target(const target &whole, std::string name, u64 offset, u64 bytes)
    : name_(std::move(name)), file_(whole.file_), size_(file_->size),
      own_medium_(file_->fd.get(), size_, file_->is_writable) {
    set_part(whole.offset_ + offset, bytes);
}

void target::set_part(u64 offset, u64 bytes) {
    offset_ = offset;
    size_ = bytes;
    medium_ = &part_.emplace(own_medium_, offset, bytes);
}

void target::set_part(const place &where) {
    const std::string name = shown_bytes(name_);
    const std::string file = shown_bytes(where.path);
    if (where.partition != 0) {
        const partition found = find_partition(*this, where.partition);
        if (file_->is_writable && found.end() > file_->size) {
            throw error(fmt::format("cannot write to {}: the partition ends at {}, {} at {}", name,
                                    shown_size(found.end()), file, shown_size(file_->size)));
        }
        disk_sector_bytes_ = found.sector_bytes;
        set_part(found.offset, found.bytes);
        return;
    }
    const u64 whole = file_->size;
    if (*where.offset >= whole || where.bytes.value_or(0) > whole - *where.offset) {
        throw error(fmt::format("cannot open {}: {} has only {} bytes", name, file, whole));
    }
    set_part(*where.offset, where.bytes.value_or(whole - *where.offset));
}

const std::string &target::file_path() const {
    return file_->path;
}

u64 target::present_bytes() const {
    if (is_device()) {
        return size_;
    }
    const u64 now = static_cast<u64>(status_of(descriptor(), name_).st_size);
    return is_part() ? std::min(size_, now - std::min(now, offset_))
                     : std::max(now, medium_->size());
}

bool target::is_device() const {
    return file_->is_device;
}

bool target::is_writable() const {
    return file_->is_writable;
}

int target::descriptor() const {
    return file_->fd.get();
}

u64 target::offset_on_disk() const {
    return file_->offset_on_disk + offset_;
}

void target::sync() const {
    if (fsync(descriptor()) != 0) {
        throw system_failure("sync " + shown_bytes(name_));
    }
}

void target::resize(u64 size) {
    if (ftruncate(descriptor(), static_cast<off_t>(size)) != 0) {
        throw system_failure("resize " + shown_bytes(name_));
    }
    size_ = size;
}

bool target::is_blank() const {
    constexpr u64 HEADER_BYTES = u64{1024} * 1024;
    std::vector<core::u8> bytes(static_cast<std::size_t>(std::min(HEADER_BYTES, size_)));
    const core::s64 count = medium_->read(0, bytes);
    if (count < 0) {
        throw system_failure("read " + shown_bytes(name_), static_cast<int>(-count));
    }
    bytes.resize(static_cast<std::size_t>(count));
    return std::all_of(bytes.begin(), bytes.end(), [&](core::u8 byte) {
        return byte == bytes.front() && (byte == 0 || byte == 0xFF);
    });
}

u32 target::sector_bytes() const {
    if (disk_sector_bytes_ != 0) {
        return disk_sector_bytes_;
    }
    int bytes = 0;
    const bool is_known = is_device() && ioctl(descriptor(), BLKSSZGET, &bytes) == 0 &&
                          bytes >= static_cast<int>(core::MIN_SECTOR_SIZE);
    return is_known ? static_cast<u32>(bytes) : core::MIN_SECTOR_SIZE;
}

void check_replaceable(const std::string &path) {
    const core::unique_fd fd(open_target(path, access::READ));
    const struct stat status = status_of(fd.get(), path);
    if (!S_ISREG(status.st_mode)) {
        throw error("cannot replace " + shown_bytes(path) + ": not an image file");
    }
    lock_target(fd.get(), path, access::WRITE);
    refuse_mounted(status, path);
}

} // namespace qvol
