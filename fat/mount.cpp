// Mounting: reading the boot sector into the volume record.
//
// The cluster count alone decides the FAT width. Intentional: a refused mount leaves the values
// read so far in the volume record, but never a sector size that transfers cannot use.

#include "core/boot_sector.h"

#include "fat/internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>

using namespace fat;

namespace fat {

namespace {

int refuse_boot_sector() {
    report_at("fat_build_super", __LINE__, "PBR data is broken\n\n");
    return -EINVAL;
}

int fill_geometry(const u8 *pbr) {
    core::areas areas = here().at;
    const core::fault why =
        core::read_areas(core::boot_numbers(pbr), core::width_rule::CLUSTER_COUNT, &areas);
    set_areas(areas);
    if (why == core::fault::FEW_CLUSTERS) {
        report_at("fat_build_super", __LINE__,
                  "NumCluster is over the limitation: clus(%d), FAT%d\n",
                  static_cast<int>(sv->num_clusters), static_cast<int>(sv->fat_type));
        return -EINVAL;
    }
    return why == core::fault::NONE ? 0 : refuse_boot_sector();
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
    const u32 total = core::boot_numbers(pbr).either_total();
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
    if (!core::is_boot_signature(buf)) {
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
