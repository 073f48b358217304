// The library's inside: what its sources share. Nothing outside fat/ includes this.
//
// Layers, each calling only those before it:
//   diag, bytes, layout, resources  ground
//   volume                          the open target and its sectors
//   param, format                   laying a fresh file system
//   fatent                          FAT entries
//   dentry                          directory entries
//   oentry                          open entries
//   debug                           printers
// Two calls go upward and are meant: releasing a volume frees its open entries (oentry), and
// compacting an image reads its FAT (fatent).

#pragma once

#include "fat/bytes.h"
#include "fat/diag.h"
#include "fat/fat.h"
#include "fat/layout.h"
#include "fat/resources.h"

#include <ctime>

// An open file or directory. Global because the public header names it.
struct oentry {
    fat::u32 start;         // first cluster, 0: none; of the FAT16 root its first sector
    fat::u32 last;          // last cluster, 0: none; of the FAT16 root its last sector
    fat::u32 allocated;     // bytes of the whole chain
    fat::u64 pos;           // byte position of reading
    fat::u32 ref_count;     // holders of the slot
    fat::u32 dentry_sector; // sector of the directory entry, 0 for the root
    fat::u32 dentry_offset; // byte offset in that sector
    fat::u8 *dentry;        // own copy of the 32-byte entry, on the heap; null for the root
    fat::u32 parent_clus;   // first cluster of the parent, 0: the FAT16 root
    char name[256];         // last component of the path it was opened by
    fat::u32 readdir_clus;  // cluster in which the fast directory walk stands
    fat::u32 readdir_pos;   // index at which the fast directory walk goes on
};

namespace fat {

// ---- volume -----------------------------------------------------------------------------------

// The unit of sector transfers while the sector size of the volume is not known, in bytes.
inline constexpr u32 UNKNOWN_SECTOR_SIZE = 4096;

// Opens `path`, sizes it and stores the new volume record in `sv`. Results as fat_open_volume().
[[nodiscard]] int fat_init_volume(const char *path, u8 long_name);

// Frees all open entries and the volume record, as fat_close_volume().
[[nodiscard]] int fat_release_volume(int compact);

// Stores the size in bytes of the open regular file or block device in `size`.
// Returns 0, -EINVAL (neither of the two) or -EACCES (the device does not tell).
[[nodiscard]] int check_vol_size(int fd, u64 *size);

// Returns 1 when one byte can be read at byte `offset`, else 0.
[[nodiscard]] int valid_offset(int fd, u64 offset);

// Size in bytes by seeking to the end, or, where that tells nothing, by trying offsets.
[[nodiscard]] u64 get_device_size(int fd);

// Sector transfers on the descriptor of `sv`: one seek and one system call; a short transfer is
// not retried. Return the whole sectors moved, -EINVAL or -EIO.
[[nodiscard]] int file_read_sectors(void *buf, u64 sector, u32 count);
[[nodiscard]] int file_write_sectors(void *buf, u64 sector, u32 count);

// ---- format -----------------------------------------------------------------------------------

inline constexpr u32 MIN_SECTOR_SIZE = 512;
inline constexpr u32 MAX_SECTOR_SIZE = 4096;
inline constexpr u32 MAX_SECTORS_PER_CLUSTER = 64;

[[nodiscard]] constexpr u32 div_ceil(u32 value, u32 unit) {
    return value / unit + (value % unit != 0 ? 1 : 0);
}

// Whether the arithmetic of formatting is safe for the request: known FAT width, sector and cluster
// sizes that are powers of two in range, counts that their fields on the medium can hold.
[[nodiscard]] bool is_valid_request(const fat_format_param *param);

// Tells, in the name of `function`, that the request is none that can be formatted.
void refuse_request(const char *function, const fat_format_param *param);

// Smallest multiple of `a` that is at least x, and at least a: 0 becomes a.
[[nodiscard]] u32 round_up_to(u32 x, u32 a);

// Decides FAT width, FAT size, cluster count and the reserved and root areas for a volume of
// `total_sectors` sectors. On success `fat_size`, `nr_rsvd_sec` and `root_entries` of the request
// hold the decisions. Returns 0, or -EINVAL after telling why the volume cannot be.
[[nodiscard]] int calc_fat_sectors(fat_format_param *param, u32 total_sectors, u32 *fat_sectors,
                                   u32 *num_clusters);

// Fills the zeroed boot sector `pbr` (one sector) and the geometry of `sv`.
[[nodiscard]] int create_pbr(u8 *pbr, fat_format_param *param);

// Fills the zeroed FSInfo sector. Returns 0 or -EINVAL (null).
[[nodiscard]] int set_fsinfo(u8 *sector);

// Builds the four tables. Each buffer becomes the caller's, to be freed; `fsinfo` is null for
// FAT16. Nothing is stored on failure: -EINVAL or -ENOMEM.
[[nodiscard]] int make_tables(fat_format_param *param, u8 **pbr, u8 **fsinfo, u8 **fat, u8 **rdir);

// Writes the tables; see fat_format(). The buffers stay the caller's.
[[nodiscard]] int write_tables_vol(fat_format_param *param, u8 *pbr, u8 *rdir, u8 *fat, u8 *fsinfo);

// One whole FAT copy, or a whole root directory, of the volume whose boot sector has its BIOS
// parameter block at `bpb`. The buffer becomes the caller's. Return 0, -EINVAL or -ENOMEM.
[[nodiscard]] int create_fat(const u8 *bpb, u8 **fat);
[[nodiscard]] int create_root_dir(const u8 *bpb, u8 **rdir);

// Stores `value` in entry `index` of a FAT in memory; the reserved bits of a FAT32 entry stay.
// Returns 0 or -EINVAL (`fat_type` is neither 16 nor 32).
[[nodiscard]] int set_fat_entry(u32 fat_type, void *table, int index, u32 value);

// ---- fatent -----------------------------------------------------------------------------------

// Stores the value of a FAT entry, without its reserved bits, in `value`. The number is not checked
// against the volume. Returns 0, -EINVAL, -ENOMEM or -EIO.
[[nodiscard]] int fat_read_entry(u32 cluster, u32 *value);

// Follows one link: 0 for a free entry, the end-of-chain value, the next cluster, or a negative
// errno for a number that is no data cluster, an entry that is no link, or a failed read.
[[nodiscard]] int fat_read_clus(u32 cluster);

// ---- dentry -----------------------------------------------------------------------------------

// Packs a local time: date = years since 1980, month, day; time = hours, minutes, seconds / 2.
void dos_time_date(const tm *t, u16 *date, u16 *time);

// Stamps the present local time as the modification time of a short entry.
void set_entry_time(u8 *entry);

// Fills the zeroed 32-byte entry with a volume label of 11 bytes. Returns 0.
int set_volume_entry(u8 *entry, const u8 *label);

// ---- oentry -----------------------------------------------------------------------------------

// Frees an open entry and its copy of the directory entry; null is ignored. Its slot in the table
// is the caller's affair. Where it was the current directory, the root becomes current.
void free_oentry(oentry *entry);

} // namespace fat
