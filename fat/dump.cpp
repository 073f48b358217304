// Dumps: copies of the volume's sectors in files of the host, for other tools to inspect.
//
// Sectors copied before a failure stay in the image file.

#include "fat/internal.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

using namespace fat;

namespace {

int create_image(const char *path) {
    return open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, IMAGE_MODE);
}

bool write_image(int image, const u8 *data, u32 bytes) {
    return write(image, data, bytes) == static_cast<ssize_t>(bytes);
}

// ---- the first FAT ----

int copy_reserved_area_and_fat(int image) {
    const heap_ptr<u8> sector_buf = zeroed_bytes(transfer_unit());
    if (sector_buf == nullptr) {
        report_at("fat_dump_fat0", __LINE__, "cannot allocate space\n");
        return -ENOMEM;
    }
    const u64 end = static_cast<u64>(sv->fat_start) + sv->fat_size;
    for (u64 sector = sv->pbr_start; sector < end; sector++) {
        if (read_medium(sector_buf.get(), sector, 1) != 1) {
            report_at("fat_dump_fat0", __LINE__, "cannot read sector\n");
            return -EIO;
        }
        if (!write_image(image, sector_buf.get(), sv->sector_size)) {
            report_at("fat_dump_fat0", __LINE__, "cannot write image\n");
            return -EIO;
        }
    }
    return 0;
}

// ---- clusters ----

// Copies the first `bytes` bytes of a cluster. Returns the number of sectors read, or a negative
// errno.
int copy_cluster(const char *function, int image, u32 cluster, u8 *buffer, u32 bytes) {
    const u32 sector = fat_sector(cluster);
    if (sector == 0) {
        report_at(function, __LINE__, "out of the data area\n\n");
        return -EINVAL;
    }
    const int moved = read_medium(buffer, sector, sv->sec_per_clus);
    if (moved != static_cast<int>(sv->sec_per_clus)) {
        report_at(function, __LINE__, "Failed to read sectors!\n\n");
        return -EIO;
    }
    if (!write_image(image, buffer, bytes)) {
        report_at(function, __LINE__, "cannot write image\n");
        return -EIO;
    }
    return moved;
}

// ---- files and directories ----

int copy_root_area(int image, u8 *buffer) {
    const u32 sectors = FAT16_ROOT_ENTRIES * DENTRY_SIZE / sv->sector_size;
    for (u32 i = 0; i < sectors; i++) {
        if (read_medium(buffer, sv->rdir_start + i, 1) != 1) {
            report_at("fat_dump", __LINE__, "Failed to read sectors!\n\n");
            return -EIO;
        }
        if (!write_image(image, buffer, sv->sector_size)) {
            report_at("fat_dump", __LINE__, "Failed to write!\n\n");
            return -EIO;
        }
    }
    return 0;
}

// Copies all clusters of a directory, other entries up to their size.
int copy_chain(int image, oentry *entry, u8 *buffer) {
    u32 *array = nullptr;
    const int count = fat_get_chains(entry, &array);
    if (count < 0) {
        report_at("fat_dump", __LINE__, "Failed to get chains!\n\n");
        return count;
    }
    const heap_ptr<u32> clusters(array);
    const bool is_directory = is_live_directory(entry->dentry);
    u32 left = load(entry->dentry, SHORT_FILE_SIZE);
    int result = 0;
    for (int i = 0; i + 1 < count && result >= 0; i++) {
        const u32 bytes = is_directory ? cluster_bytes() : std::min(cluster_bytes(), left);
        result = copy_cluster("fat_dump", image, clusters.get()[i], buffer, bytes);
        left -= is_directory ? 0 : bytes;
    }
    return result;
}

int copy_entry(int image, oentry *entry) {
    const heap_ptr<u8> buffer = zeroed_bytes(cluster_bytes());
    if (buffer == nullptr) {
        report_at("fat_dump", __LINE__, "Failed to allocate memory!\n\n");
        return -ENOMEM;
    }
    if (entry->dentry != nullptr) {
        return copy_chain(image, entry, buffer.get());
    }
    if (is_fat16_root(entry)) {
        return copy_root_area(image, buffer.get());
    }
    report_at("fat_dump", __LINE__, "Invalid arg!\n\n");
    return -EINVAL;
}

int dump_open_entry(oentry *entry, const char *image_path) {
    const unique_fd image(create_image(image_path));
    if (image.get() < 0) {
        const int error = errno;
        report_at("fat_dump", __LINE__, "create directory image\n\n");
        return -error;
    }
    return copy_entry(image.get(), entry);
}

// The checks that all public calls here share: a path, and a mounted volume.
bool is_refused(const char *function, const void *path) {
    if (path == nullptr) {
        report_at(function, __LINE__, "Check here!\n\n");
        return true;
    }
    return not_mounted(function);
}

} // namespace

int fat_dump_fat0(const char *image_path) {
    if (is_refused(__func__, image_path)) {
        return -EINVAL;
    }
    const unique_fd image(create_image(image_path));
    if (image.get() < 0) {
        const int error = errno;
        report_errno("create fat image");
        return -error;
    }
    return copy_reserved_area_and_fat(image.get());
}

int fat_dump_clus(uint32_t cluster, const char *image_path) {
    if (is_refused(__func__, image_path)) {
        return -EINVAL;
    }
    const unique_fd image(create_image(image_path));
    if (image.get() < 0) {
        const int error = errno;
        report_errno("create cluster image");
        return -error;
    }
    const heap_ptr<u8> buffer = zeroed_bytes(cluster_bytes());
    if (buffer == nullptr) {
        REPORT("cannot allocate space\n");
        return -ENOMEM;
    }
    return copy_cluster(__func__, image.get(), cluster, buffer.get(), cluster_bytes());
}

int fat_dump(const char *volume_path, const char *image_path) {
    const public_call call;
    if (is_refused(__func__, image_path)) {
        return -EINVAL;
    }
    const int id = fat_open(volume_path);
    if (id < 0) {
        REPORT("\n");
        return id;
    }
    oentry *entry = entry_of(id);
    int result = -ENOENT;
    if (entry == nullptr) {
        REPORT("Failed to get file entry!\n\n");
    } else {
        result = dump_open_entry(entry, image_path);
    }
    (void)fat_close(id); // prints a diagnostic for the id of the root, which stays open
    return result;
}
