// The one open volume: opening and sizing its target, sector transfers, release.
//
// Invariants: `sv` is null or points to a zero-initialised heap record whose `fd` is open. The
// library accesses the target by read_sectors and write_sectors only, except to determine its size
// and to truncate a compacted image file.

#include "core/directory_cache.h"
#include "core/sector_cache.h"
#include "fat/internal.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iterator>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace fat;

fat_super *sv = nullptr;
fat_sector_io read_sectors = nullptr;
fat_sector_io write_sectors = nullptr;

namespace {

constexpr u32 DEVICE_SECTOR = 512; // unit of BLKGETSIZE, regardless of the device's sector size
constexpr int LAST_STANDARD_DESCRIPTOR = 2;

void use_file_transfers() {
    read_sectors = file_read_sectors;
    write_sectors = file_write_sectors;
}

bool can_transfer(const void *buf) {
    return sv != nullptr && sv->fd > LAST_STANDARD_DESCRIPTOR && buf != nullptr;
}

// Sets errno on failure, also for a byte offset beyond the range of files.
bool seek_sector(u64 sector) {
    if (sector > static_cast<u64>(INT64_MAX) / transfer_unit()) {
        errno = EINVAL;
        return false;
    }
    return lseek(sv->fd, static_cast<off_t>(sector * transfer_unit()), SEEK_SET) >= 0;
}

// Limited to the address space. The system may transfer less in one call: such a transfer is short.
std::size_t transfer_bytes(u32 count) {
    const u64 bytes = static_cast<u64>(count) * transfer_unit();
    return bytes > SSIZE_MAX ? static_cast<std::size_t>(SSIZE_MAX)
                             : static_cast<std::size_t>(bytes);
}

int whole_sectors(ssize_t bytes) {
    return static_cast<int>(bytes / static_cast<ssize_t>(transfer_unit()));
}

// Intentional: prints both sizes of a block device and uses the smaller one.
int check_device_size(int fd, u64 *size) {
    unsigned long device_sectors = 0;
    if (ioctl(fd, BLKGETSIZE, &device_sectors) < 0) {
        report_at("check_vol_size", __LINE__, "cannot get the volume size: ioctl(BLKGETSIZE)\n");
        return -EACCES;
    }
    // Intentional: 32 bits wide. As a volume size it is correct below 4 GiB.
    const u32 device_bytes = static_cast<u32>(device_sectors) * DEVICE_SECTOR;
    const u64 seek_bytes = get_device_size(fd);
    report_at("check_vol_size", __LINE__, "ioctl(BLKGETSIZE): %u sectors, %u bytes\n",
              static_cast<u32>(device_sectors), device_bytes);
    report_at("check_vol_size", __LINE__, "seek volume: %llu bytes\n",
              static_cast<unsigned long long>(seek_bytes));
    *size = seek_bytes;
    const u64 seek_sectors = seek_bytes / DEVICE_SECTOR;
    if (seek_sectors == device_sectors) {
        return 0;
    }
    report_bare("Warning: mismatch the volume size from ioctl(%u B) and lseek(%llu B)\n",
                device_bytes, static_cast<unsigned long long>(seek_bytes));
    if (seek_sectors > device_sectors) {
        *size = device_bytes;
    }
    return 0;
}

void free_open_entries() {
    for (u32 id = 0; id < std::size(oentry_table); id++) {
        free_oentry(oentry_table[id]);
        oentry_table[id] = nullptr;
    }
    std::memset(oentry_map, 0, sizeof oentry_map);
    if (sv != nullptr) {
        sv->root_dir = nullptr;
        sv->current_dir = nullptr;
    }
}

void close_target() {
    if (sv->fd > LAST_STANDARD_DESCRIPTOR) {
        close(sv->fd);
    }
}

void free_volume() {
    std::free(sv);
    sv = nullptr;
}

// Raises the allocation hint to the highest cluster in use. Intentional: never reads the two
// highest clusters.
int find_last_allocated() {
    core::table fat(here());
    for (u32 cluster = sv->last_alloc_clus + 1; cluster < sv->num_clusters; cluster++) {
        const int value = follow(&fat, cluster);
        if (value < 0) {
            report_at("fat_release_volume", __LINE__, "Invalid cluster value\n\n");
            return value;
        }
        if (value != 0) {
            sv->last_alloc_clus = cluster;
        }
    }
    return 0;
}

// End of the last allocated cluster, in bytes. Intentional: each product is 32 bits wide, so image
// files of 4 GiB and more are not supported.
u64 compact_length() {
    const u32 data_bytes = (sv->last_alloc_clus - 1) * sv->sec_per_clus * sv->sector_size;
    const u32 data_offset = sv->data_start * sv->sector_size;
    return static_cast<u64>(data_bytes) + data_offset;
}

int release_compacted() {
    report_at("fat_release_volume", __LINE__, "compaction\n\n");
    report_at("fat_release_volume", __LINE__, "last allocated cluster: %u / %u\n",
              sv->last_alloc_clus, sv->num_clusters + 2);
    const int scanned = find_last_allocated();
    if (scanned < 0) {
        return scanned;
    }
    close_target();
    const int result = truncate(sv->dev_path, static_cast<off_t>(compact_length()));
    if (result < 0) {
        report_at("fat_release_volume", __LINE__, "fail to truncate resulting image:%s\n",
                  std::strerror(errno));
    }
    free_volume();
    return result;
}

constinit unsigned calls = 0; // public calls that have not returned
constinit core::sector_cache known_sectors;
constinit core::directory_cache known_directory; // empty unless the cache is on

constinit bool is_cache_on = false;
constinit u32 epoch = 0; // of positions in chains

// What the sectors are known of; they are of no use for anything else.
struct medium_identity {
    const fat_super *volume = nullptr;
    int fd = -1;
    u32 data_start = 0;
    fat_sector_io read = nullptr;
    fat_sector_io write = nullptr;

    bool operator==(const medium_identity &) const = default;
};
constinit medium_identity known_of;

medium_identity present_medium() {
    return {sv, sv != nullptr ? sv->fd : -1, sv != nullptr ? sv->data_start : 0, read_sectors,
            write_sectors};
}

// The target of the open volume, as the program may have replaced its transfers.
class target_medium : public core::medium {
public:
    explicit constexpr target_medium(bool is_silent) : is_silent_(is_silent) {}

    s64 read(u64 offset, std::span<u8> bytes) override {
        if (is_silent_) {
            return read_ahead(offset, bytes);
        }
        return moved(read_medium(bytes.data(), offset / transfer_unit(), units(bytes.size())));
    }
    s64 read_ahead(u64 offset, std::span<u8> bytes) override {
        const quiet_scope quiet; // what is needed is read again, and reported then
        return moved(read_medium(bytes.data(), offset / transfer_unit(), units(bytes.size())));
    }
    void used(u64 offset, std::span<const u8> bytes) override {
        if (calls > 0) {
            known_sectors.store(offset / transfer_unit(), bytes.data(), transfer_unit());
        }
    }
    s64 write(u64 offset, std::span<const u8> bytes) override {
        return moved(write_medium(bytes.data(), offset / transfer_unit(), units(bytes.size())));
    }
    [[nodiscard]] u64 size() const override {
        return sv->vol_size;
    }

private:
    static u32 units(std::size_t bytes) {
        return static_cast<u32>(bytes / transfer_unit());
    }
    static s64 moved(int sectors) {
        return sectors < 0 ? sectors : s64{sectors} * transfer_unit();
    }

    bool is_silent_;
};

constinit target_medium target(false);
constinit target_medium silent_target(true);

core::volume volume_on(core::medium *device) {
    core::volume vol;
    if (sv != nullptr) {
        vol.device = device;
        vol.at = {.width = sv->fat_type == 12 ? 0 : sv->fat_type, // the engine could use FAT12
                  .sector_size = sv->sector_size,
                  .sectors_per_cluster = sv->sec_per_clus,
                  .total_sectors = sv->total_sectors,
                  .fat_start = sv->fat_start,
                  .fat_sectors = sv->fat_size,
                  .root_start = sv->rdir_start,
                  .root_cluster = sv->root_clus,
                  .data_start = sv->data_start,
                  .clusters = sv->num_clusters};
    }
    return vol;
}

} // namespace

namespace fat {

// ---- public calls -----------------------------------------------------------------------------

bool no_volume(const char *function) {
    if (sv != nullptr) {
        return false;
    }
    report_at(function, __LINE__, "Check here!\n\n");
    return true;
}

bool not_mounted(const char *function) {
    if (no_volume(function)) {
        return true;
    }
    if (sv->sector_size != 0) {
        return false;
    }
    report_at(function, __LINE__, "Check here!\n\n");
    return true;
}

int with_errno(int result) {
    if (result < 0) {
        errno = -result;
    }
    return result;
}

// ---- size of the target -----------------------------------------------------------------------

int valid_offset(int fd, u64 offset) {
    if (lseek(fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
        REPORT("Check here!\n\n");
        return 0;
    }
    char byte = 0;
    return read(fd, &byte, 1) > 0 ? 1 : 0;
}

u64 get_device_size(int fd) {
    const off_t end = lseek(fd, 0, SEEK_END);
    if (end > 0) {
        return static_cast<u64>(end);
    }
    // Offsets are signed 64-bit numbers: the doubling ends even if every offset is readable.
    constexpr u64 HIGHEST_PROBE = 1ULL << 62;
    u64 low = 0;
    u64 high = 1;
    while (high < HIGHEST_PROBE && valid_offset(fd, high) != 0) {
        low = high;
        high *= 2;
    }
    while (low < high - 1) {
        const u64 middle = (low + high) / 2;
        if (valid_offset(fd, middle) != 0) {
            low = middle;
        } else {
            high = middle;
        }
    }
    return low + 1;
}

int check_vol_size(int fd, u64 *size) {
    struct stat status {};
    if (fstat(fd, &status) < 0) {
        REPORT("- cannot access volume\n");
        return -EINVAL;
    }
    if (S_ISREG(status.st_mode)) {
        *size = static_cast<u64>(status.st_size);
        return 0;
    }
    if (S_ISBLK(status.st_mode)) {
        return check_device_size(fd, size);
    }
    REPORT("Not supported volume type\n");
    return -EINVAL;
}

void forget_medium() {
    known_sectors.clear();
    known_directory.clear();
    forget_positions();
}

u32 chain_epoch() {
    return epoch;
}

void forget_positions() {
    epoch++;
}

bool keeps_positions() {
    return is_cache_on && calls > 0;
}

core::directory_cache *cached_directory(u32 base_clu) {
    if (!keeps_positions()) {
        return nullptr;
    }
    known_directory.select(here(), base_clu);
    return known_directory.is_usable() ? &known_directory : nullptr;
}

void continue_walk(core::slot_walk *slots, u32 base_clu, u32 index) {
    if (keeps_positions()) {
        core::chain_cursor at = slots->cursor();
        known_directory.set_cursor(base_clu, core::sector_index_of_slot(here(), index), &at);
        slots->start_from(at);
    }
}

void continue_walk(core::chain_cursor *cursor, u32 base_clu, u32 sector_index) {
    if (keeps_positions()) {
        known_directory.set_cursor(base_clu, sector_index, cursor);
    }
}

void link_changes(u32 cluster) {
    known_directory.link_changed(cluster);
}

public_call::public_call() {
    if (calls++ > 0) {
        return;
    }
    const medium_identity now = present_medium();
    if (!is_cache_on || now != known_of) {
        forget_medium();
    }
    known_of = now;
}

public_call::~public_call() {
    calls--;
}

int read_medium(void *buf, u64 sector, u32 count) {
    const bool is_kept = calls > 0 && count == 1;
    const u8 *known = is_kept ? known_sectors.find(sector, transfer_unit()) : nullptr;
    if (known == nullptr && is_kept) {
        known = known_directory.find_sector(sector);
    }
    if (known != nullptr) {
        std::memcpy(buf, known, transfer_unit());
        return 1;
    }
    const int moved = read_sectors(buf, sector, count);
    if (is_kept && moved == 1) {
        known_sectors.store(sector, static_cast<const u8 *>(buf), transfer_unit());
    }
    return moved;
}

int write_medium(const void *buf, u64 sector, u32 count) {
    known_sectors.forget(sector, count, transfer_unit());
    // Transfers in both directions have one type; a write does not change its buffer.
    const int moved = write_sectors(const_cast<void *>(buf), sector, count);
    if (moved == static_cast<int>(count)) {
        known_directory.sectors_written(sector, count, static_cast<const u8 *>(buf));
    } else {
        known_directory.clear(); // what the medium contains now is not known
    }
    if (calls > 0 && count == 1 && moved == 1) {
        known_sectors.store(sector, static_cast<const u8 *>(buf), transfer_unit());
    }
    return moved;
}

core::volume here() {
    return volume_on(&target);
}

core::volume here_silently() {
    return volume_on(&silent_target);
}

// ---- sector transfers -------------------------------------------------------------------------

u32 transfer_unit() {
    return sv->sector_size != 0 ? sv->sector_size : UNKNOWN_SECTOR_SIZE;
}

int file_read_sectors(void *buf, u64 sector, u32 count) {
    if (!can_transfer(buf)) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    if (!seek_sector(sector)) {
        REPORT("Check here!: %s (%d x %d)\n\n", std::strerror(errno), static_cast<int>(sector),
               static_cast<int>(transfer_unit()));
        return -EIO;
    }
    const ssize_t bytes = read(sv->fd, buf, transfer_bytes(count));
    if (bytes < 0) {
        REPORT("Check here!: %s\n\n", std::strerror(errno));
        return -EIO;
    }
    return whole_sectors(bytes);
}

int file_write_sectors(void *buf, u64 sector, u32 count) {
    if (!can_transfer(buf)) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    if (!seek_sector(sector)) {
        REPORT("Check here!\n\n");
        return -EIO;
    }
    const ssize_t bytes = write(sv->fd, buf, transfer_bytes(count));
    if (bytes < 0) {
        REPORT("Check here!\n\n");
        return -EIO;
    }
    return whole_sectors(bytes);
}

// ---- opening and release ----------------------------------------------------------------------

int fat_init_volume(const char *path, u8 long_name) {
    use_file_transfers();
    const int fd = open(path, O_RDWR);
    if (fd < 0) {
        const int error = errno;
        REPORT("Check here: %s\n\n", std::strerror(error));
        return -error;
    }
    u64 size = 0;
    const int sized = check_vol_size(fd, &size);
    if (sized < 0) {
        REPORT("Check here: %d\n\n", sized);
        return sized;
    }
    if (size == 0) {
        REPORT("The size of volume is zero!\n\n");
        return -ENOSPC;
    }
    heap_ptr<fat_super> volume = zeroed_records<fat_super>();
    if (volume == nullptr) {
        REPORT("cannot allocate volume data structure\n\n");
        close(fd);
        return -ENOMEM;
    }
    volume->fd = fd;
    volume->long_name = long_name != 0 ? 1 : 0;
    volume->vol_size = size;
    std::strncpy(volume->dev_path, path, sizeof volume->dev_path - 1);
    std::memset(oentry_table, 0, sizeof oentry_table);
    std::memset(oentry_map, 0, sizeof oentry_map);
    sv = volume.release();
    return fd;
}

int fat_release_volume(int compact) {
    forget_medium();
    free_open_entries();
    if (compact == 1) {
        // The start of the data is known after formatting or mounting. Without it the file would be
        // truncated to nothing or to a wrong length.
        if (sv == nullptr || sv->data_start == 0) {
            REPORT("Check here!\n\n");
            return -EINVAL;
        }
        return release_compacted();
    }
    if (sv != nullptr) {
        close_target();
        free_volume();
    }
    return 0;
}

} // namespace fat

void fat_set_cache(int enabled) {
    is_cache_on = enabled != 0;
    forget_medium();
}

int fat_open_volume(const char *path, uint8_t long_name, int mode) {
    if (path == nullptr) {
        REPORT("NULL path!\n\n");
        return -EINVAL;
    }
    const std::size_t length = std::strlen(path);
    if (length + 1 > sizeof fat_super::dev_path) {
        REPORT("path length is too long: %d\n\n", static_cast<int>(length));
        return -ENAMETOOLONG;
    }
    if (mode != 0) {
        REPORT("failed to open FAT volume!\n\n");
        return -EINVAL;
    }
    return fat_init_volume(path, long_name);
}

int fat_close_volume(int compact) {
    if (sv == nullptr) {
        std::puts("sv is null");
        return 0;
    }
    close_encoding();
    return fat_release_volume(compact);
}

int create_fat_volume(const char *path, uint32_t chunk, int count) {
    if (path == nullptr) {
        REPORT("failed to open file!\n\n");
        return -EFAULT;
    }
    unique_fd fd(open(path, O_RDWR | O_CREAT | O_TRUNC, IMAGE_MODE));
    if (fd.get() < 0) {
        const int error = errno;
        REPORT("failed to open file!\n\n");
        return -error;
    }
    const heap_ptr<u8> zeros = zeroed_bytes(chunk);
    if (zeros == nullptr) {
        REPORT("failed to allocate memory!\n\n");
        return -ENOMEM;
    }
    for (int i = 0; i < count; i++) {
        if (write(fd.get(), zeros.get(), chunk) < 0) {
            REPORT("failed to write!\n\n");
            return -EIO;
        }
    }
    use_file_transfers();
    return fd.release();
}
