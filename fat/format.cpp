// Formatting: the tables are built in memory, then written in a fixed order.
//
// Order on the medium: boot sector, zeros to the rest of the reserved area, backup boot sector,
// FSInfo, every FAT copy, root directory. Nothing is undone after a failed write. Of the data area
// only the cluster of a FAT32 root directory is written.

#include "core/boot_sector.h"

#include "fat/internal.h"

#include <cerrno>

using namespace fat;

namespace fat {

namespace {

// The media byte with all higher bits set.
constexpr u32 FAT_ENTRY_0 = 0xFFFFFF00 | MEDIA_FIXED;
constexpr u8 BLANK_LABEL[SHORT_NAME.size] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};

int write_boot_sector(u8 *pbr) {
    if (write_medium(pbr, 0, 1) != 1) {
        report_at("write_tables_vol", __LINE__, "Cannot write PBR sector\n\n");
        return -EIO;
    }
    return 0;
}

int clear_reserved_area(const fat_format_param *param, u8 *zero_sector) {
    for (u32 sector = 1; sector < param->nr_rsvd_sec; sector++) {
        if (write_medium(zero_sector, sector, 1) < 0) {
            report_at("write_tables_vol", __LINE__, "IO Error!\n\n");
            return -EIO;
        }
    }
    return 0;
}

// The backup boot sector and FSInfo, if the boot sector states their sectors. Intentional: FSInfo
// has no backup.
int write_fat32_sectors(u8 *pbr, u8 *fsinfo) {
    const u32 backup_sector = load(pbr, PBR32_BACKUP_SECTOR);
    if (backup_sector != 0 && write_medium(pbr, backup_sector, 1) != 1) {
        report_at("write_tables_vol", __LINE__, "Cannot write PBR backup!\n\n");
        return -EIO;
    }
    const u32 fsinfo_sector = load(pbr, PBR32_FSINFO_SECTOR);
    if (fsinfo_sector != 0 && (fsinfo == nullptr || write_medium(fsinfo, fsinfo_sector, 1) != 1)) {
        report_at("write_tables_vol", __LINE__, "cannot write FSInfo sector\n");
        return -EIO;
    }
    return 0;
}

int write_fats(const fat_format_param *param, u8 *fat) {
    if (sv->fat_start == 0 && sv->fat_size == 0) {
        report_at("write_tables_vol", __LINE__, "Not initialized value\n\n");
        return -EINVAL;
    }
    for (u32 copy = 0; copy < param->nr_fat; copy++) {
        const u64 sector = sv->fat_start + static_cast<u64>(copy) * sv->fat_size;
        const int written = write_medium(fat, sector, sv->fat_size);
        if (written != static_cast<int>(sv->fat_size)) {
            report_at("write_tables_vol", __LINE__, "Cannot write FAT(%d)\n\n", written);
            return -EIO;
        }
    }
    return 0;
}

u32 root_dir_sectors(const u8 *bpb) {
    if (sv->fat_type == 32) {
        return sv->sec_per_clus;
    }
    const u32 root_entries = load16(bpb + PBR_ROOT_ENTRIES.offset - BPB_OFFSET);
    return div_ceil(root_entries * DENTRY_SIZE, sv->sector_size);
}

int write_root_dir(const u8 *pbr, u8 *rdir) {
    if (sv->rdir_start == 0) {
        report_at("write_tables_vol", __LINE__, "Not initialized value\n\n");
        return -EINVAL;
    }
    const int sectors = static_cast<int>(root_dir_sectors(pbr + BPB_OFFSET));
    const int written = write_medium(rdir, sv->rdir_start, static_cast<u32>(sectors));
    if (written != sectors) {
        report_at("write_tables_vol", __LINE__, "Cannot write root directory(%d)!\n\n", written);
        return -EIO;
    }
    return sectors;
}

// `fsinfo` stays null for FAT16.
int make_fsinfo(const fat_format_param *param, heap_ptr<u8> *fsinfo) {
    if (param->fat_size != 32 || param->nr_rsvd_sec == 0) {
        return 0;
    }
    *fsinfo = zeroed_bytes(param->sector_size);
    if (*fsinfo == nullptr) {
        report_at("make_tables", __LINE__, "Cannot create FSINFO!\n\n");
        return -ENOMEM;
    }
    const int result = set_fsinfo(fsinfo->get());
    if (result < 0) {
        report_at("make_tables", __LINE__, "Cannot set fsinfo!\n\n");
    }
    return result;
}

} // namespace

// ---- tables in memory -------------------------------------------------------------------------

int set_fat_entry(u32 fat_type, void *table, int index, u32 value) {
    auto *bytes = static_cast<u8 *>(table);
    const auto slot = static_cast<std::size_t>(index);
    if (fat_type == 16) {
        store16(bytes + slot * FAT16_ENTRY_SIZE, static_cast<u16>(value & 0xFFFF));
        return 0;
    }
    if (fat_type == 32) {
        u8 *entry = bytes + slot * FAT32_ENTRY_SIZE;
        store32(entry, (load32(entry) & ~FAT32_VALUE_MASK) | (value & FAT32_VALUE_MASK));
        return 0;
    }
    REPORT("This library supports only FAT16 and FAT32\n");
    return -EINVAL;
}

int create_fat(const u8 *bpb, u8 **fat) {
    if (bpb == nullptr || fat == nullptr) {
        REPORT("NULL arg!\n\n");
        return -EINVAL;
    }
    heap_ptr<u8> table = zeroed_bytes(sv->fat_size, sv->sector_size);
    if (table == nullptr) {
        REPORT("Unable to allocate FAT\n\n");
        return -ENOMEM;
    }
    int result = set_fat_entry(sv->fat_type, table.get(), 0, FAT_ENTRY_0);
    if (result == 0) {
        result = set_fat_entry(sv->fat_type, table.get(), 1, FAT_END_MARK);
    }
    if (result == 0 && sv->fat_type == 32) {
        result =
            set_fat_entry(sv->fat_type, table.get(), static_cast<int>(sv->root_clus), FAT_END_MARK);
    }
    if (result < 0) {
        return result;
    }
    sv->last_alloc_clus = sv->fat_type == 32 ? sv->root_clus : 0;
    *fat = table.release();
    return 0;
}

int create_root_dir(const u8 *bpb, u8 **rdir) {
    if (bpb == nullptr || rdir == nullptr) {
        REPORT("NULL arg!\n\n");
        return -EINVAL;
    }
    heap_ptr<u8> directory = zeroed_bytes(root_dir_sectors(bpb), sv->sector_size);
    if (directory == nullptr) {
        REPORT("Cannot allocate root directory\n");
        return -ENOMEM;
    }
    // Intentional: the requested label is stored in the boot sector only; this one is always blank.
    set_volume_entry(directory.get(), BLANK_LABEL);
    *rdir = directory.release();
    return 0;
}

int make_tables(fat_format_param *param, u8 **pbr, u8 **fsinfo, u8 **fat, u8 **rdir) {
    if (param == nullptr || pbr == nullptr || fsinfo == nullptr || fat == nullptr ||
        rdir == nullptr) {
        REPORT("NULL args!\n\n");
        return -EINVAL;
    }
    if (!is_valid_request(param)) {
        refuse_request(__func__, param);
        return -EINVAL;
    }
    heap_ptr<u8> boot_sector = zeroed_bytes(param->sector_size);
    if (boot_sector == nullptr) {
        REPORT("Failed to allocate memory!\n\n");
        return -ENOMEM;
    }
    int result = create_pbr(boot_sector.get(), param);
    if (result < 0) {
        REPORT("Cannot create PBR!\n\n");
        return result;
    }
    heap_ptr<u8> info;
    result = make_fsinfo(param, &info);
    if (result < 0) {
        return result;
    }
    const u8 *bpb = boot_sector.get() + BPB_OFFSET;
    u8 *table = nullptr;
    result = create_fat(bpb, &table);
    if (result < 0) {
        REPORT("Cannot create FAT!\n\n");
        return result;
    }
    heap_ptr<u8> fat_copy(table);
    result = create_root_dir(bpb, rdir);
    if (result < 0) {
        REPORT("Cannot create root directory!\n\n");
        return result;
    }
    *pbr = boot_sector.release();
    *fsinfo = info.release();
    *fat = fat_copy.release();
    return 0;
}

// ---- tables on the medium ---------------------------------------------------------------------

int write_tables_vol(fat_format_param *param, u8 *pbr, u8 *rdir, u8 *fat, u8 *fsinfo) {
    if (param == nullptr || pbr == nullptr || rdir == nullptr || fat == nullptr) {
        REPORT("NULL args!\n\n");
        return -EINVAL;
    }
    const heap_ptr<u8> zero_sector = zeroed_bytes(sv->sector_size);
    if (zero_sector == nullptr) {
        REPORT("Failed to allocate memory!\n\n");
        return -ENOMEM;
    }
    core::sign_sector_end(pbr, sv->sector_size);
    int result = write_boot_sector(pbr);
    if (result == 0) {
        result = clear_reserved_area(param, zero_sector.get());
    }
    if (result == 0 && param->fat_size == 32) {
        result = write_fat32_sectors(pbr, fsinfo);
    }
    if (result == 0) {
        result = write_fats(param, fat);
    }
    return result == 0 ? write_root_dir(pbr, rdir) : result;
}

} // namespace fat

int fat_format(fat_format_param *param) {
    forget_medium();
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    u8 *pbr = nullptr;
    u8 *fsinfo = nullptr;
    u8 *fat = nullptr;
    u8 *rdir = nullptr;
    const int made = make_tables(param, &pbr, &fsinfo, &fat, &rdir);
    const heap_ptr<u8> owned[] = {heap_ptr<u8>(pbr), heap_ptr<u8>(fsinfo), heap_ptr<u8>(fat),
                                  heap_ptr<u8>(rdir)};
    if (made < 0) {
        REPORT("Failed to make table!\n\n");
        return made;
    }
    return write_tables_vol(param, pbr, rdir, fat, fsinfo);
}
