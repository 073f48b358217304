#include "qvol/session.h"

#include "fat/internal.h"
#include "qvol/error.h"
#include "qvol/mounted.h"
#include "qvol/sectors.h"

#include <algorithm>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <fmt/core.h>
#include <linux/fs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qvol {

namespace {

// ---- transfers --------------------------------------------------------------------------------

// Continues after a short transfer, which the library's own functions treat as a failure.
template <typename Transfer>
int transfer_all(u64 sector, u32 count, Transfer transfer) {
    const u64 unit = fat::transfer_unit();
    const u64 total = unit * count;
    u64 done = 0;
    while (done < total) {
        const ssize_t moved =
            transfer(done, total - done, static_cast<off_t>(sector * unit + done));
        if (moved < 0 && errno != EINTR) {
            return -errno;
        }
        if (moved == 0) {
            break;
        }
        done += moved > 0 ? static_cast<u64>(moved) : 0;
    }
    return static_cast<int>(done / unit);
}

int read_target(void *buffer, u64 sector, u32 count) {
    return transfer_all(sector, count, [buffer](u64 done, u64 rest, off_t offset) {
        return pread(sv->fd, static_cast<char *>(buffer) + done, rest, offset);
    });
}

int write_target(void *buffer, u64 sector, u32 count) {
    return transfer_all(sector, count, [buffer](u64 done, u64 rest, off_t offset) {
        return pwrite(sv->fd, static_cast<char *>(buffer) + done, rest, offset);
    });
}

int refuse_to_write(void *, u64, u32) {
    return -EROFS;
}

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

// Makes the library's record of the open volume from the locked descriptor. The library itself
// would open the path again, and for writing, which fails on a read-only file.
void attach_to_library(core::unique_fd *fd, const std::string &path, access wanted) {
    u64 size = 0;
    if (fat::check_vol_size(fd->get(), &size) < 0) {
        throw error("cannot open " + shown_bytes(path) +
                    ": neither an image file nor a block device");
    }
    if (size == 0) {
        throw error("cannot open " + shown_bytes(path) + ": it is empty");
    }
    core::heap_ptr<fat_super> record = core::zeroed_records<fat_super>();
    if (record == nullptr) {
        throw std::bad_alloc();
    }
    record->vol_size = size;
    record->long_name = 1;
    record->fd = fd->release();
    sv = record.release();
    read_sectors = read_target;
    write_sectors = wanted == access::WRITE ? write_target : refuse_to_write;
}

// ---- boot sector ------------------------------------------------------------------------------

std::string padded_text(const u8 *record, const core::field &field) {
    std::string text(reinterpret_cast<const char *>(record) + field.offset, field.size);
    text.erase(std::find(text.begin(), text.end(), '\0'), text.end());
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

boot_fields parse_boot_sector(const std::vector<u8> &sector) {
    const u8 *pbr = sector.data();
    const bool is_fat32 = sv->fat_type == 32;
    const u8 *extended = pbr + (is_fat32 ? core::EBR_OFFSET_FAT32 : core::EBR_OFFSET_FAT16);
    const bool has_extended =
        core::load(extended, core::EBR_BOOT_SIGNATURE) == core::EXTENDED_BOOT_SIGNATURE;
    boot_fields boot{};
    boot.reserved_sectors = core::load(pbr, core::PBR_RESERVED_SECTORS);
    boot.fat_copies = core::load(pbr, core::PBR_NUMBER_OF_FATS);
    boot.root_entries = is_fat32 ? 0 : core::load(pbr, core::PBR_ROOT_ENTRIES);
    boot.media = core::load(pbr, core::PBR_MEDIA);
    boot.serial = has_extended ? core::load(extended, core::EBR_VOLUME_ID) : 0;
    boot.fsinfo_sector = is_fat32 ? core::load(pbr, core::PBR32_FSINFO_SECTOR) : 0;
    boot.backup_sector = is_fat32 ? core::load(pbr, core::PBR32_BACKUP_SECTOR) : 0;
    boot.oem_name = padded_text(pbr, core::PBR_OEM_NAME);
    boot.label = has_extended ? padded_text(extended, core::EBR_VOLUME_LABEL) : std::string();
    return boot;
}

// The library reports a sector that cannot be read.
void refuse_unsupported(const target &where) {
    std::vector<u8> sector(fat::transfer_unit());
    const bool is_read = read_sectors(sector.data(), 0, 1) == 1;
    const std::string reason = is_read ? unsupported_volume(sector) : "";
    if (!reason.empty()) {
        throw error(shown_bytes(where.path()) + " " + reason);
    }
}

std::vector<contradiction> contradictions_on(const target &where) {
    const std::optional<u64> device_bytes =
        where.is_device() ? std::optional(where.size()) : std::nullopt;
    return contradictions_of(read_extent(0, 1), device_bytes);
}

void refuse_contradictions(const target &where) {
    std::vector<std::string> reasons;
    for (const contradiction &one : contradictions_on(where)) {
        reasons.push_back(one.text);
    }
    if (!reasons.empty()) {
        throw error(fmt::format("cannot write to {}: its boot sector contradicts itself",
                                shown_bytes(where.path())),
                    reasons);
    }
}

// The FAT width is the last property of the areas that the library finds out. If it is known and
// mounting fails, the root directory is damaged.
boot_fields mount(const target &where, mounted wanted) {
    refuse_unsupported(where);
    const bool has_root = fat_build_super() >= 0;
    if (!has_root && sv->fat_type == 0) {
        throw error(fmt::format("cannot mount {}: no FAT16 or FAT32 volume found",
                                shown_bytes(where.path())));
    }
    if (where.is_writable() && wanted == mounted::WITH_ROOT) {
        refuse_contradictions(where);
    }
    if (!has_root && wanted == mounted::WITH_ROOT) {
        throw error(fmt::format("cannot mount {}: the root directory is damaged; \"qvol check\" "
                                "shows how",
                                shown_bytes(where.path())));
    }
    return parse_boot_sector(read_extent(0, 1));
}

bool is_fsinfo(const std::vector<u8> &sector) {
    return core::load(sector.data(), core::FSINFO_LEAD) == core::FSINFO_LEAD_SIGNATURE &&
           core::load(sector.data(), core::FSINFO_STRUCTURE) == core::FSINFO_STRUCTURE_SIGNATURE;
}

} // namespace

// ---- target -----------------------------------------------------------------------------------

target::target(std::string path, access wanted)
    : path_(std::move(path)), is_writable_(wanted == access::WRITE) {
    if (is_writable_) {
        // If the reader of the output ends, SIGPIPE must not end the program between two writes.
        (void)std::signal(SIGPIPE, SIG_IGN);
    }
    core::unique_fd fd(open_target(path_, wanted));
    lock_target(fd.get(), path_, wanted);
    const struct stat status = status_of(fd.get(), path_);
    is_device_ = S_ISBLK(status.st_mode);
    if (wanted == access::WRITE) {
        refuse_mounted(status, path_);
    }
    attach_to_library(&fd, path_, wanted);
}

target::~target() {
    (void)fat_close_volume(0); // cannot fail without compacting
}

// The library stores the size of its one open volume.
// NOLINTNEXTLINE(readability-convert-member-functions-to-static): a property of this target
u64 target::size() const {
    return sv->vol_size;
}

void target::sync() const {
    if (fsync(sv->fd) != 0) {
        throw system_failure("sync " + shown_bytes(path_));
    }
}

void target::resize(u64 size) const {
    if (ftruncate(sv->fd, static_cast<off_t>(size)) != 0) {
        throw system_failure("resize " + shown_bytes(path_));
    }
    sv->vol_size = size;
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): as size()
void target::limit_size(u64 bytes) const {
    sv->vol_size = bytes;
}

bool target::is_blank() const {
    constexpr std::size_t HEADER_BYTES = std::size_t{1024} * 1024;
    std::vector<u8> bytes(HEADER_BYTES);
    const ssize_t count = pread(sv->fd, bytes.data(), bytes.size(), 0);
    if (count < 0) {
        throw system_failure("read " + shown_bytes(path_));
    }
    bytes.resize(static_cast<std::size_t>(count));
    return std::all_of(bytes.begin(), bytes.end(), [&](u8 byte) {
        return byte == bytes.front() && (byte == 0 || byte == 0xFF);
    });
}

u32 target::sector_bytes() const {
    int bytes = 0;
    const bool is_known = is_device_ && ioctl(sv->fd, BLKSSZGET, &bytes) == 0 &&
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

// ---- volume -----------------------------------------------------------------------------------

volume::volume(const target &where, const std::string &encoding, mounted wanted)
    : target_(where), boot_(mount(where, wanted)), names_(encoding), fat_(boot_.fat_copies) {}

std::vector<contradiction> volume::contradictions() const {
    return contradictions_on(target_);
}

void volume::commit_additions(const std::vector<directory *> &changed) {
    has_committed_ = true;
    for (directory *dir : changed) {
        dir->write_new_clusters();
    }
    fat_.write_changes();
    for (directory *dir : changed) {
        dir->write_changes();
    }
}

void volume::commit_removals(const std::vector<directory *> &changed) {
    has_committed_ = true;
    for (directory *dir : changed) {
        dir->write_changes();
    }
    fat_.write_changes();
}

void volume::finish() {
    if (boot_.fsinfo_sector != 0 && boot_.fsinfo_sector < boot_.reserved_sectors) {
        write_fsinfo();
    }
    target_.sync();
}

void volume::abandon() {
    if (!has_committed_) {
        return;
    }
    fat_.forget_changes();
    try {
        finish();
    } catch (const error &) {
        // the earlier error is the one to report
    }
}

// A sector without the signatures is not changed: it may contain something else.
void volume::write_fsinfo() {
    std::vector<u8> sector = read_extent(boot_.fsinfo_sector, 1);
    if (!is_fsinfo(sector)) {
        return;
    }
    const std::vector<u8> before = sector;
    core::store(sector.data(), core::FSINFO_FREE_COUNT, fat_.free_count());
    core::store(sector.data(), core::FSINFO_NEXT_FREE, fat_.next_free());
    if (sector != before) {
        write_extent(boot_.fsinfo_sector, sector);
    }
}

} // namespace qvol
