// Mounting: reading the boot sector into the volume record.
//
// The cluster count alone decides the FAT width. Intentional: a refused mount leaves the values
// read so far in the volume record, but never a sector size that transfers cannot use.

#include "fat/internal.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include <fcntl.h>

using namespace fat;

namespace fat {

namespace {

u32 either_total(const u8 *pbr) {
    const u32 total = load(pbr, PBR_TOTAL_SECTORS_16);
    return total != 0 ? total : load(pbr, PBR_TOTAL_SECTORS_32);
}

bool is_sector_size(u32 size) {
    return std::has_single_bit(size) && size >= core::MIN_SECTOR_SIZE &&
           size <= core::MAX_SECTOR_SIZE;
}

// Stores the sizes and the total. False if a size is invalid or missing.
bool read_sizes(const u8 *pbr) {
    const u32 sector_size = load(pbr, PBR_BYTES_PER_SECTOR);
    const u32 sec_per_clus = load(pbr, PBR_SECTORS_PER_CLUSTER);
    if (!is_sector_size(sector_size) || sec_per_clus == 0) {
        return false;
    }
    sv->sector_size = sector_size;
    sv->sec_per_clus = sec_per_clus;
    sv->fat_size = load(pbr, PBR_FAT_SIZE_16);
    if (sv->fat_size != 0) {
        sv->total_sectors = either_total(pbr);
        return true;
    }
    sv->fat_size = load(pbr, PBR32_FAT_SIZE);
    sv->total_sectors = load(pbr, PBR_TOTAL_SECTORS_32);
    return sv->fat_size != 0 && sv->total_sectors != 0;
}

// Number of sectors before the root area of FAT16.
u64 sectors_to_root_area(const u8 *pbr) {
    const u64 fats = static_cast<u64>(sv->fat_size) * load(pbr, PBR_NUMBER_OF_FATS);
    return load(pbr, PBR_RESERVED_SECTORS) + fats;
}

// Number of sectors before the first cluster.
u64 sectors_to_data(const u8 *pbr) {
    const u32 root_bytes = load(pbr, PBR_ROOT_ENTRIES) * DENTRY_SIZE;
    return sectors_to_root_area(pbr) + div_ceil(root_bytes, sv->sector_size);
}

// False if the areas before the data are larger than the volume.
bool count_clusters(const u8 *pbr) {
    const u64 front = sectors_to_data(pbr);
    if (front > sv->total_sectors) {
        return false;
    }
    sv->num_clusters = (sv->total_sectors - static_cast<u32>(front)) / sv->sec_per_clus;
    return true;
}

// FAT width for a cluster count, 0 for a count that is too small.
u32 width_of(u32 clusters) {
    if (clusters < FAT16_MIN_CLUSTERS) {
        return 0;
    }
    return clusters < FAT32_MIN_CLUSTERS ? 16 : 32;
}

void place_areas(const u8 *pbr) {
    sv->fat_start = sv->pbr_start + load(pbr, PBR_RESERVED_SECTORS);
    sv->data_start = sv->pbr_start + static_cast<u32>(sectors_to_data(pbr));
    sv->root_clus = 0;
    sv->rdir_start = sv->pbr_start + static_cast<u32>(sectors_to_root_area(pbr));
    if (sv->fat_type == 32) {
        sv->root_clus = load(pbr, PBR32_ROOT_CLUSTER);
        sv->rdir_start = sv->data_start + (sv->root_clus - FIRST_DATA_CLUSTER) * sv->sec_per_clus;
    }
}

// FAT16 by the count, without the root area that FAT16 has: FAT32 with too few clusters. Taken for
// FAT16 it would seem empty, and writing would destroy it.
bool lacks_root_area(const u8 *pbr, u32 width) {
    return width == 16 && load(pbr, PBR_ROOT_ENTRIES) == 0;
}

int refuse_boot_sector() {
    report_at("fat_build_super", __LINE__, "PBR data is broken\n\n");
    return -EINVAL;
}

int fill_geometry(const u8 *pbr) {
    if (!read_sizes(pbr) || !count_clusters(pbr)) {
        return refuse_boot_sector();
    }
    const u32 width = width_of(sv->num_clusters);
    if (width == 0) {
        report_at("fat_build_super", __LINE__,
                  "NumCluster is over the limitation: clus(%d), FAT%d\n",
                  static_cast<int>(sv->num_clusters), static_cast<int>(sv->fat_type));
        return -EINVAL;
    }
    if (lacks_root_area(pbr, width)) {
        return refuse_boot_sector();
    }
    sv->fat_type = width;
    place_areas(pbr);
    return 0;
}

int enter_root() {
    int result = open_root_directory();
    if (result < 0) {
        report_at("fat_build_super", __LINE__, "Cannot open root directory!\n\n");
        return result;
    }
    result = fat_set_current(0);
    if (result < 0) {
        report_at("fat_build_super", __LINE__, "Cannot set current directory to root\n\n");
    }
    return result;
}

// A text field of the boot sector as a string.
struct field_text {
    char text[16];

    field_text(const u8 *record, const field &f) : text{} {
        std::memcpy(text, record + f.offset, f.size);
    }
};
static_assert(sizeof field_text::text > EBR_VOLUME_LABEL.size);

void print_common_block(FILE *stream, const u8 *pbr) {
    const u8 *jump = pbr + PBR_JUMP.offset;
    std::fprintf(stream, " BS_jmpBoot:   \t0x%X 0x%X 0x%X\n", jump[0], jump[1], jump[2]);
    std::fprintf(stream, " BS_oem_name:  \t%s\n", field_text(pbr, PBR_OEM_NAME).text);
    std::fprintf(stream, " BPB_BytsPerSec:%u\n", load(pbr, PBR_BYTES_PER_SECTOR));
    std::fprintf(stream, " BPB_SecPerClus:%u\n", load(pbr, PBR_SECTORS_PER_CLUSTER));
    std::fprintf(stream, " BPB_RsvdSecCnt:%u\n", load(pbr, PBR_RESERVED_SECTORS));
    std::fprintf(stream, " BPB_NumFATs: \t%u\n", load(pbr, PBR_NUMBER_OF_FATS));
    std::fprintf(stream, " BPB_RootEntCnt:%u\n", load(pbr, PBR_ROOT_ENTRIES));
    std::fprintf(stream, " BPB_TotSec16:\t%u\n", load(pbr, PBR_TOTAL_SECTORS_16));
    std::fprintf(stream, " BPB_Media:\t0x%X\n", load(pbr, PBR_MEDIA));
    std::fprintf(stream, " BPB_FATSz16:\t%u\n", load(pbr, PBR_FAT_SIZE_16));
    std::fprintf(stream, " BPB_SecPerTrk:\t%u\n", load(pbr, PBR_SECTORS_PER_TRACK));
    std::fprintf(stream, " BPB_NumHeads:\t%u\n", load(pbr, PBR_HEADS));
    std::fprintf(stream, " BPB_HiddSec:\t%u\n", load(pbr, PBR_HIDDEN_SECTORS));
    std::fprintf(stream, " BPB_TotSec32:\t%u\n", load(pbr, PBR_TOTAL_SECTORS_32));
}

void print_fat32_block(FILE *stream, const u8 *pbr) {
    std::fprintf(stream, " BPB_FATSz32:\t%u\n", load(pbr, PBR32_FAT_SIZE));
    std::fprintf(stream, " BPB_ExtFlags:\t%u\n", load(pbr, PBR32_EXTENDED_FLAGS));
    std::fprintf(stream, " BPB_FSVer:\t%u\n", load(pbr, PBR32_VERSION));
    std::fprintf(stream, " BPB_RootClus:\t%u\n", load(pbr, PBR32_ROOT_CLUSTER));
    std::fprintf(stream, " BPB_FSInfo:\t%u\n", load(pbr, PBR32_FSINFO_SECTOR));
    std::fprintf(stream, " BPB_BkBootSec:\t%u\n", load(pbr, PBR32_BACKUP_SECTOR));
}

void print_extended_record(FILE *stream, const u8 *ebr) {
    std::fprintf(stream, " BS_DrvNum:\t0x%x\n", load(ebr, EBR_DRIVE_NUMBER));
    std::fprintf(stream, " BS_BootSig:\t0x%x\n", load(ebr, EBR_BOOT_SIGNATURE));
    std::fprintf(stream, " BS_VolID:\t0x%x\n", load(ebr, EBR_VOLUME_ID));
    std::fprintf(stream, " BS_VolLab:\t%s\n", field_text(ebr, EBR_VOLUME_LABEL).text);
    std::fprintf(stream, " BS_FilSysType:\t%s\n", field_text(ebr, EBR_TYPE).text);
}

void print_boot_sector(FILE *stream, const u8 *pbr) {
    const bool has_fat32_block = load(pbr, PBR_FAT_SIZE_16) == 0;
    std::fprintf(stream, "\n==== PBR structure =====\n");
    print_common_block(stream, pbr);
    if (has_fat32_block) {
        print_fat32_block(stream, pbr);
    }
    print_extended_record(stream, pbr + (has_fat32_block ? EBR_OFFSET_FAT32 : EBR_OFFSET_FAT16));
    std::fprintf(stream, " BS_SIGNATURE:\t0x%04X\n", load(pbr, PBR_SIGNATURE));
    std::fprintf(stream, "========================\n");
}

int copy_sector(u8 *buffer, u64 sector, u32 size, int fd) {
    if (read_medium(buffer, sector, 1) != 1) {
        report_at("fat_delete_mbr", __LINE__, "cannot read sector\n");
        return -EIO;
    }
    if (write(fd, buffer, size) != static_cast<ssize_t>(size)) {
        report_at("fat_delete_mbr", __LINE__, "cannot write image\n");
        return -EIO;
    }
    return 0;
}

// Copies the volume that begins at `first_sector` to a new image file.
int copy_volume(const char *path, const u8 *pbr, u32 first_sector) {
    const unique_fd fd(open(path, O_RDWR | O_CREAT | O_TRUNC, IMAGE_MODE));
    if (fd.get() < 0) {
        const int error = errno;
        report_errno("create new image");
        return -error;
    }
    const u32 size = load(pbr, PBR_BYTES_PER_SECTOR);
    // Transfers use the unit of the volume record, regardless of the boot sector.
    const heap_ptr<u8> buffer = zeroed_bytes(std::max(size, transfer_unit()));
    if (buffer == nullptr) {
        report_at("fat_delete_mbr", __LINE__, "cannot allocate space\n");
        return -ENOMEM;
    }
    const u32 total = either_total(pbr);
    int result = 0;
    for (u32 i = 0; i < total && result == 0; i++) {
        result = copy_sector(buffer.get(), static_cast<u64>(first_sector) + i, size, fd.get());
    }
    return result;
}

} // namespace

int get_pbr_sector(u8 *buf) {
    constexpr int PBR_SECTOR = 0; // the boot sector is always the first of the target
    if (read_medium(buf, PBR_SECTOR, 1) != 1) {
        REPORT("Cannot read PBR from volume\n");
        return -EIO;
    }
    if (load(buf, PBR_SIGNATURE) != BOOT_SIGNATURE) {
        REPORT("Invalid PBR signature\n\n");
        return -EINVAL;
    }
    return PBR_SECTOR;
}

} // namespace fat

int fat_build_super() {
    forget_medium();
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    const heap_ptr<u8> pbr = zeroed_bytes(transfer_unit());
    if (pbr == nullptr) {
        REPORT("Cannot allocate space\n");
        return -ENOMEM;
    }
    const int pbr_sector = get_pbr_sector(pbr.get());
    if (pbr_sector < 0) {
        REPORT("Cannot get PBR sector!\n\n");
        return pbr_sector;
    }
    sv->pbr_start = static_cast<u32>(pbr_sector);
    const int filled = fill_geometry(pbr.get());
    return filled < 0 ? filled : enter_root();
}

int fat_print_pbr(FILE *stream) {
    if (sv == nullptr || stream == nullptr) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    const heap_ptr<u8> pbr = zeroed_bytes(transfer_unit());
    if (pbr == nullptr) {
        REPORT("cannot allocate space\n");
        return -ENOMEM;
    }
    const int result = get_pbr_sector(pbr.get());
    if (result == -EINVAL) {
        REPORT("unformated FAT volume\n");
    } else if (result < 0) {
        REPORT("Unknown error!\n\n");
    } else {
        print_boot_sector(stream, pbr.get());
    }
    return result;
}

int print_alloc_hint(FILE *stream) {
    if (stream == nullptr) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    if (sv == nullptr) {
        return std::fprintf(stream, "uninitialized volume information\n");
    }
    return std::fprintf(stream, "last allocated cluster: %u / %u\n", sv->last_alloc_clus,
                        sv->num_clusters + 2);
}

int fat_delete_mbr(const char *path) {
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    const heap_ptr<u8> pbr = zeroed_bytes(transfer_unit());
    if (pbr == nullptr) {
        REPORT("cannot allocate space\n");
        return -ENOMEM;
    }
    const int pbr_sector = get_pbr_sector(pbr.get());
    if (pbr_sector < 0) {
        REPORT("Failed to get PBR sector!\n\n");
        return pbr_sector;
    }
    if (pbr_sector == 0) {
        return 0; // no sectors precede the volume
    }
    return copy_volume(path, pbr.get(), static_cast<u32>(pbr_sector));
}
