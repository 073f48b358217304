/*
 * quorvel: a library for FAT16 and FAT32 volumes on NAND-flash block devices and in image files.
 *
 * Conventions
 *  1. Results are int: 0, a count or an index on success, a negative errno value on failure, unless
 *     a function states otherwise.
 *  2. One volume is open at a time, in the global `sv`. The library is for one thread.
 *  3. Strings are NUL-terminated and owned by the caller; the library does not use them after the
 *     call.
 *  4. Sizes are in bytes. Sector numbers count from the start of the target in units of the
 *     volume's sector size. Cluster numbers count from 2.
 *  5. Diagnostics go to one stream: standard error, or the choice of fat_set_diagnostics().
 *  6. "The volume is not mounted" is an error of calls that need the geometry or a directory.
 *     fat_format() alone provides the geometry: calls that need no directory work after it, the
 *     others after fat_build_super() only.
 *
 * The on-medium format is FAT16 and FAT32 with long names, as described by fatgen103, the white
 * paper on the FAT file system.
 */

#ifndef QUORVEL_FAT_FAT_H
#define QUORVEL_FAT_FAT_H

#include <iconv.h>
#include <stdint.h>
#include <stdio.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* An open file or directory; the fields are internal. */
typedef struct oentry oentry;

/* ---- records --------------------------------------------------------------------------------- */

/*
 * The format request. Fill it with zeros, set the fields of interest, call check_format_param() for
 * the rest, then fat_format(). The caller owns the strings.
 */
typedef struct fat_format_param {
    uint32_t fat_size;       /* FAT width in bits: 16 or 32; 0: by the cluster count */
    uint32_t sec_per_clus;   /* sectors per cluster, a power of two from 1 to 64; 0: 1 */
    uint32_t sector_size;    /* bytes, a power of two from 512 to 4096; 0: 4096 */
    char *outfile;           /* path of the target */
    char *infile;            /* not used by formatting */
    uint32_t page_size;      /* NAND page in bytes, the alignment of every area; 0: no alignment.
                                check_format_param() sets 4096 unless fat_page_size_given */
    uint32_t root_entries;   /* FAT16 root-directory entries, rounded up to full sectors.
                                check_format_param() sets it: change it after that call */
    uint32_t nr_rsvd_sec;    /* output: sectors before the first FAT */
    uint8_t long_name;       /* 1: long names on; not used by formatting */
    uint32_t nr_fat;         /* FAT copies, 1 to 255; 0: 2 */
    uint32_t sector_of_bkup; /* not used: the backup boot sector of FAT32 is sector 6 */
    uint32_t volume_id;      /* serial number; 0: the present time */
    char volume_label[12];   /* 11 bytes padded with spaces, and a NUL; empty: 11 spaces */
} fat_format_param;

/* The open volume. The geometry is zero until the volume is formatted or mounted. */
typedef struct fat_super {
    int fd;                   /* descriptor of the target; sector transfers refuse 0 to 2 */
    uint64_t vol_size;        /* size of the target in bytes */
    uint32_t fat_type;        /* FAT width in bits: 16 or 32 */
    uint32_t fat_size;        /* size of one FAT copy in sectors */
    uint32_t total_sectors;   /* size of the volume in sectors */
    uint32_t num_clusters;    /* number of data clusters, 2 to num_clusters + 1 */
    uint32_t sector_size;     /* bytes; 0: unknown, the unit of transfers is 4096 bytes */
    uint32_t sec_per_clus;    /* sectors of one cluster */
    uint32_t root_clus;       /* FAT32: first cluster of the root directory; FAT16: 0 */
    uint32_t fat_start;       /* first sector of FAT copy 0 */
    uint32_t rdir_start;      /* first sector of the root directory */
    uint32_t data_start;      /* first sector of cluster 2 */
    uint32_t pbr_start;       /* sector of the boot sector */
    uint32_t last_alloc_clus; /* the search for a free cluster begins after it */
    uint8_t long_name;        /* 1: long names are written and read, 0: 8.3 names only */
    oentry *root_dir;         /* the open root directory, NULL before mounting */
    oentry *current_dir;      /* start of relative paths, NULL before mounting */
    iconv_t cd_to_uni;        /* converter from the caller's encoding, NULL: plain ASCII */
    iconv_t cd_from_uni;      /* converter to the caller's encoding, NULL: plain ASCII */
    char dev_path[4096];      /* path of the target */
} fat_super;

/* ---- process-wide state ---------------------------------------------------------------------- */

/* The open volume, or NULL. The library allocates and frees it. */
extern fat_super *sv;

/*
 * Transfers `count` sectors between `buf` and the volume, starting at sector number `sector`. The
 * unit is the volume's sector size, or 4096 bytes while that is 0. Returns the number of whole
 * sectors transferred, or a negative errno value. Every access of the library to sectors goes
 * through these two. fat_open_volume() sets them to transfers on the target; a program may replace
 * them after that call.
 */
typedef int (*fat_sector_io)(void *buf, uint64_t sector, uint32_t count);
extern fat_sector_io read_sectors, write_sectors;

/* The open entries by id, and a bitmap of the ids in use. */
extern oentry *oentry_table[512];
extern uint32_t oentry_map[16];

/*
 * The permission mode, off by default. While perm_enable is 1, new entries store an identifier in
 * place of their creation time, and the permission bits of a mode word (octal layout) in their
 * cmsec and attribute bytes. The _parent pair is for the ".." entry of a new directory.
 */
typedef struct fat_permissions {
    uint32_t perm_enable;
    uint16_t perm_id, perm_id_parent;
    uint32_t perm_mode, perm_mode_parent;
} fat_permissions;
extern fat_permissions fat_perm;

/* If not 0, check_format_param() does not change page_size: this distinguishes a page size of 0
 * from a missing one. */
extern int fat_page_size_given;

/* ---- what an embedding program may set ------------------------------------------------------- */

/*
 * Sends diagnostics to `stream`; NULL turns them off. The caller owns the stream, which must stay
 * valid until another one is set. Output to standard output is not affected.
 */
void fat_set_diagnostics(FILE *stream);

/*
 * With `enabled` not 0, the library stores from call to call what it has learned of the volume: FAT
 * and directory sectors, positions in the cluster chains of open files, and the directory used last
 * with an index of its names, in up to 2.5 MiB of memory. The program promises in return that the
 * medium changes by calls of the library alone. The library drops all of it at this call, at
 * formatting, mounting and closing, and if read_sectors or write_sectors is replaced. Initially 0:
 * nothing is stored. Results, messages, and what is written do not depend on it.
 */
void fat_set_cache(int enabled);

/* The only source of the present time in the library; initially time(). Must not be NULL. */
extern time_t (*fat_clock)(time_t *);

/* ---- format ---------------------------------------------------------------------------------- */

/*
 * Checks the requested cluster size and sets the defaults of the request.
 *
 * Intentional: the check uses sec_per_clus x sector_size as given, before the defaults. 64 sectors
 * per cluster with sector_size 0 pass and become 64 x 4096 bytes.
 *
 * Returns 0, or -1 with a diagnostic and an unchanged request for a cluster larger than 32768 bytes
 * or NULL.
 */
int check_format_param(fat_format_param *param);

/*
 * Formats the open volume: writes boot sector, FSInfo, every FAT copy and an empty root directory,
 * in this order. Of the data area only the cluster of a FAT32 root directory is written. Stores the
 * geometry in `sv`, and the chosen fat_size, nr_rsvd_sec and root_entries in the request.
 *
 * Needs memory for one FAT copy and the root directory. Does not sync the medium. Close all open
 * ids first: they refer to entries of the old file system. For a target of 2^32 sectors or more
 * only the size modulo 2^32 sectors is used.
 *
 * Returns the number of root-directory sectors written (positive), or
 *   -EINVAL  no volume is open, the request is invalid, or its cluster count does not fit the
 *            target; nothing was written
 *   -ENOMEM  nothing was written
 *   -EIO     a transfer failed; sectors written before stay written
 */
int fat_format(fat_format_param *param);

/* ---- volume ---------------------------------------------------------------------------------- */

/*
 * Opens an existing image file or block device for reading and writing as the open volume.
 * `long_name` other than 0 turns long names on; `mode` must be 0. Close an open volume first: it
 * would be replaced without being freed.
 *
 * Returns the descriptor (0 or more), owned by the volume, or
 *   -EINVAL        NULL path, another mode, or neither a regular file nor a block device
 *   -ENAMETOOLONG  a path of more than 4095 bytes
 *   -EACCES        a block device that does not report its size
 *   -ENOSPC        an empty target
 *   -ENOMEM, or the errno of open()
 * After -EACCES, -ENOSPC and -EINVAL for the type of the target the descriptor stays open.
 */
int fat_open_volume(const char *path, uint8_t long_name, int mode);

/*
 * Closes the volume and all its open entries. With `compact` 1 an image file is also truncated
 * after its last cluster in use.
 *
 * Limits of compaction: the length must be below 4 GiB. The two highest clusters are never checked:
 * their content is cut off if the search for free clusters has wrapped around to lower ones. It
 * fails with -EINVAL if no cluster was allocated since the volume was mounted.
 *
 * Returns 0, also if no volume is open. With `compact` 1 also -1 if the file cannot be truncated,
 * or a negative errno value if the FAT cannot be read or the volume was not formatted or mounted
 * successfully: the volume then stays open, without open entries and without an encoding.
 */
int fat_close_volume(int compact);

/*
 * Creates, or truncates, the file `path` and writes `count` blocks of `chunk` zero bytes. Does not
 * open it as the volume, but sets read_sectors and write_sectors to transfers on the target.
 *
 * Returns a descriptor, which the caller closes, the errno of open(), -EFAULT (NULL path),
 * -ENOMEM or -EIO.
 */
int create_fat_volume(const char *path, uint32_t chunk, int count);

/*
 * Mounts the open volume: reads its boot sector into `sv`, opens the root directory as id 0 and
 * makes it the current directory. The boot sector has the fields of fatgen103; the cluster count
 * alone decides the FAT width. A volume may claim more sectors than the target has. Close the ids
 * of an earlier mount first: they stay open, unchanged.
 *
 * Returns 0, or
 *   -EINVAL  no volume is open, no boot sector, a boot sector that contradicts itself, fewer than
 *            4085 clusters, or a root directory with a broken chain
 *   -EIO, -ENOMEM
 * On failure the volume stays open; the caller closes it.
 */
int fat_build_super(void);

/*
 * Prints the fields of the boot sector to `stream`.
 * Returns 0, -EINVAL (NULL, no volume is open, no boot sector), -EIO or -ENOMEM.
 */
int fat_print_pbr(FILE *stream);

/*
 * Prints the number of the cluster after which the search for a free cluster begins, to `stream`.
 * Returns the result of fprintf(), or -EINVAL (NULL).
 */
int print_alloc_hint(FILE *stream);

/*
 * Copies the volume to a new image file `path` if sectors precede its boot sector. Intentional: the
 * boot sector is always sector 0, so nothing is ever copied.
 * Returns 0, -EINVAL (no volume is open, no boot sector), -EIO or -ENOMEM.
 */
int fat_delete_mbr(const char *path);

/*
 * Sets the character encoding of names in arguments and results by its iconv name ("UTF-8",
 * "ISO-8859-1", ...), until it is set again or the volume is closed. The default for names with a
 * long form is plain ASCII. Characters beyond U+FFFF cannot be converted.
 *
 * Returns 0, also if no volume is open or `charset` is NULL (then it does nothing), or -EINVAL if
 * the system lacks the conversion in one direction; the other direction is then in use.
 */
int fat_set_encoding(const char *charset);

/* ---- open entries ---------------------------------------------------------------------------- */

/*
 * An id is the number of an open file or directory: 1 to 511, the lowest free one; 0 is the root
 * directory. Each open call creates an id with its own copy of the directory entry. Two ids of one
 * file do not see each other's changes: an append through one overwrites data appended through the
 * other, and clusters are lost. Append through one id only; open the file again to see its changes.
 *
 * A path that begins with "/" starts at the root, any other path at the current directory. Paths
 * are one level deep: all components before the last must be ".".
 */

/*
 * Opens a file or directory. Returns its id (0 for the root, as "/" or ""), or
 *   -EINVAL        NULL path, a path of more than one level, a forbidden name, a broken chain
 *   -ENAMETOOLONG  a path of more than 260 characters
 *   -ENOENT        no such name
 *   -EFAULT        the volume is not mounted
 *   -EMFILE        all ids are in use
 *   -EIO, -ENOMEM
 */
int fat_open(const char *path);

/*
 * The same, for directories only: -ENOTDIR for other entries. NULL opens the root again and makes
 * it current, which leaks the id of the previous current directory: call fat_set_current(0) first.
 * Also stores errors in errno.
 */
int fat_open_dir(const char *path);

/* The same, for other entries than directories: -EISDIR for those. Also stores errors in errno. */
int fat_open_file(const char *path);

/*
 * Closes an id. Changes of its copy of the directory entry that were not written are lost.
 * Returns 0, or -EINVAL (0, 512 and more, no volume is open). Ignores a negative id.
 */
int fat_close(int id);

/* Returns the id of the current directory, -1 before fat_build_super(), or -EINVAL. */
int get_current(void);

/*
 * Makes an open directory the current one, which holds a reference to it: it stays open even after
 * one fat_close(). Returns `did`, -EBADF (no such id), -ENOTDIR, or the error of get_current().
 */
int fat_set_current(int did);

/* ---- namespace ------------------------------------------------------------------------------- */

/*
 * Create an empty file, or a directory with "." and "..". With long names on, a name that does not
 * fit 8.3 in one case gets a long name. Paths as for fat_open().
 *
 * Return the id of the new, open entry, or
 *   -EEXIST        the name exists
 *   -ENOSPC        no room in the directory or on the volume, or the directory cannot be read
 *   -EFAULT        the volume is not mounted
 *   -EINVAL        NULL path, forbidden name, a path of more than one level
 *   -ENAMETOOLONG  a path of more than 260 characters
 *   -EMFILE        the entry was created, but all ids are in use
 *   -EIO, -ENOMEM  the FAT and the directory may have changed in part: see docs/power-loss.md
 */
int fat_create_file(const char *path);
int fat_mkdir(const char *path);

/*
 * Creates a symbolic link with the text `target`, 1 to 260 characters. The library does not follow
 * links. Returns 0, the errors of fat_create_file(), or the error of writing the target, which
 * leaves an empty link.
 */
int fat_create_symlink(const char *target, const char *path);

/*
 * Removes a file, a symbolic link or an empty directory and frees its clusters. The long-name slots
 * of the name stay in the directory as orphans. Refuses a file without clusters, to which nothing
 * was ever written, with -EINVAL: use fat_rm_entry().
 *
 * Does not check whether the entry is open or the current directory: close its ids and leave the
 * directory first. Later writes through them would change free clusters or those of another file.
 *
 * Returns the number of entries marked as removed, 1 or more, or -ENOENT, -ENOTEMPTY,
 * -ENAMETOOLONG, -EIO, -ENOMEM; -EINVAL also if all ids are in use; -EFAULT if the volume is not
 * mounted, or for an entry past the 512th of a FAT16 root directory.
 */
int fat_unlink(const char *path);

/*
 * Removes the directory entry only: its clusters, and the content of a directory, stay allocated
 * and cannot be reached any more. Results as for fat_unlink(), without -ENOTEMPTY.
 */
int fat_rm_entry(const char *path);

/* ---- data ------------------------------------------------------------------------------------ */

/*
 * Appends `count` bytes to an open file, regardless of the position of its id, and writes its
 * directory entry. The caller owns the buffer.
 *
 * Returns `count`, or a negative errno value, which is also stored in errno except for -EINVAL of a
 * NULL buffer, a count of 0 or no volume:
 *   -EINVAL  no such id, a broken FAT
 *   -EISDIR  a directory
 *   -ENOSPC  no room; the file is unchanged. Close an id of a file without clusters then: its copy
 *            of the entry contains the number of a cluster that is free again
 *   -EFAULT  the chain is shorter than the file
 *   -EFBIG   the file would reach 4 GiB, or `count` is above INT_MAX; nothing has changed
 *   -EIO     a transfer failed: the clusters of this call are free again and the size is unchanged,
 *            unless the write of the directory entry itself failed
 *   -ENOMEM
 */
int fat_write_file(int id, const void *buffer, uint32_t count);

/*
 * Reads up to `count` bytes at the position of the id and advances it past them. The end of the
 * file is the size in the id's own copy of the directory entry.
 *
 * Returns the number of bytes read, 0 at the end of the file, or a negative errno value, stored in
 * errno as above: -EINVAL (no such id, a position past the end of the file, a broken chain),
 * -EISDIR, -EFAULT (a chain shorter than the file), -EIO, -ENOMEM. On failure the position does not
 * change.
 */
int fat_read_file(int id, void *buffer, uint32_t count);

/*
 * Moves the position of an open file to `offset` bytes from its beginning (`whence` 0), from the
 * position (1) or from the end (2), modulo 2^64. A position past the end is valid; reading there
 * fails. Returns the new position, or -EINVAL (no such id, another `whence`) or -EISDIR.
 */
int64_t fat_lseek(int id, int64_t offset, int whence);

/*
 * Stores the padded short name of an open entry, 11 bytes and a NUL, in `name_out` (12 bytes).
 * Returns 0, -EBADF (no such id, or the root directory) or -EINVAL (no volume is open).
 */
int fat_dump_entry(int id, char *name_out);

/* ---- attributes and metadata ----------------------------------------------------------------- */

/*
 * Read and change one item of an open entry's copy of its directory entry. `type` is 1: the first
 * cluster, 2: byte 12 (case bits of the short name), 3: byte 13 (0xE2 marks a symbolic link); for 2
 * and 3 the low 8 bits are stored. Only the copy changes: fat_update_entry() writes it, and reads
 * and appends continue to use the chain that the entry had when it was opened.
 *
 * Return 0, -EBADF (no such id, or the root directory) or -EINVAL (another type, NULL `value`, no
 * volume is open). fat_set() prints no diagnostic for -EBADF.
 */
int fat_get(int id, int type, uint32_t *value);
int fat_set(int id, int type, uint32_t value);

/* The same with a fixed type: 1, 2 and 3. */
int fat_get_cluster(int id, uint32_t *value);
int fat_set_cluster(int id, uint32_t value);
int fat_get_sysid(int id, uint32_t *value);
int fat_set_sysid(int id, uint32_t value);
int fat_get_cmsec(int id, uint32_t *value);
int fat_set_cmsec(int id, uint32_t value);

/*
 * Writes an open entry's copy of its directory entry to the medium.
 * Returns 0, -EBADF (no such id, or the root directory), -EIO, -ENOMEM or -EINVAL (no volume).
 */
int fat_update_entry(int id);

/*
 * Prints kind, name, size, directory entry and cluster chain of an open entry to `stream` (NULL:
 * standard output). The size of a directory is that of its clusters.
 * Returns 0, -EBADF (no such id, or the root directory), or the error of fat_list_chains().
 */
int fat_fstat(int id, FILE *stream);

/*
 * Prints the clusters of an open entry to `stream` (NULL: standard output), ten a line.
 * Returns 0, also for an entry without clusters, for which it prints a diagnostic; -EBADF (no such
 * id), -EINVAL (the FAT16 root directory, a broken chain, no volume is open) or -ENOMEM.
 */
int fat_list_chains(int id, FILE *stream);

/*
 * Stores in `buffer` (`size` bytes, 4096 or more) the absolute path of the file, link or directory
 * whose chain contains the cluster.
 *
 * Returns the index of its entry in its directory, or
 *   -EINVAL        NULL or small buffer, no such cluster, a broken directory
 *   -ENOENT        the cluster is free, lost, or belongs to the root directory
 *   -ENAMETOOLONG  a path of 4096 bytes or more
 *   -EMFILE        too many ids are in use: the search needs one for each level
 *   -EIO, -ENOMEM
 */
int fat_find_pathname(uint32_t cluster, char *buffer, uint32_t size);

/*
 * Stores the absolute path of the current directory in `buffer` of `size` bytes: at least 2 for the
 * root directory, 4096 for any other. Returns 0, or the error of fat_find_pathname().
 */
int fat_getcwd(char *buffer, uint32_t size);

/* ---- listings for programs ------------------------------------------------------------------- */

/* The fields of a directory entry, and its name for display. */
typedef struct fat_entry_info {
    char name[768];      /* long name in the chosen encoding, else the short name; never empty */
    char short_name[13]; /* as stored, upper case: "NAME.EXT" */
    uint8_t type;        /* 2 file, 3 directory, 7 symbolic link, 8 volume label */
    uint8_t attr;        /* 0x01 read-only, 0x02 hidden, 0x04 system, 0x08 label, 0x10 directory */
    uint8_t cmsec;       /* 0xE2 for a symbolic link */
    uint16_t mtime;      /* modification: hours << 11 | minutes << 5 | seconds / 2 */
    uint16_t mdate;      /* modification: (year - 1980) << 9 | month << 5 | day */
    uint32_t size;       /* bytes; 0 for a directory */
    uint32_t start;      /* first cluster, 0 without clusters */
    uint32_t index;      /* index of the short entry in its directory, from 0 */
} fat_entry_info;

/*
 * Stores the next entry of an open directory in `info`. Begin with `*index` 0; each call advances
 * it past the entry returned. Includes "." and "..", and a volume label; skips removed entries and
 * a blank label. The directory may change between calls: entries added after `*index` are returned.
 * A long name is replaced by the short one if the encoding (plain ASCII by default) cannot
 * represent it, and always while long names are off.
 *
 * Returns 1, 0 at the end of the directory (`info` is then unchanged), or
 *   -EINVAL   NULL pointer, the volume is not mounted, a broken directory
 *   -EBADF    no such id
 *   -ENOTDIR  the id is not that of a directory
 *   -EIO, -ENOMEM
 * Prints no diagnostics, except if the volume is not mounted.
 */
int fat_next_entry(int did, uint32_t *index, fat_entry_info *info);

/*
 * Describes an open entry in `info`: attributes, times, size and first cluster from its own copy of
 * the directory entry, name and index from the medium. The root directory has the name "/", an
 * empty short name and index 0.
 *
 * Returns 0, or
 *   -EINVAL  NULL pointer, the volume is not mounted, a broken parent directory
 *   -EBADF   no such id
 *   -ENOENT  the entry has been removed
 *   -EIO, -ENOMEM
 * Prints no diagnostics, except if the volume is not mounted.
 */
int fat_info_of(int id, fat_entry_info *info);

/* ---- ZUQ ------------------------------------------------------------------------------------- */

/*
 * Create the reserved files of the ZUQ flash driver in the root directory: the pool file
 * "ZUQ_POOL.SY$" of one cluster that begins with a header of seven 32-bit words, and the log file
 * "$ZUQ_LOG.LO$" of zeroed clusters, 128 KiB rounded up to full clusters. Both are read-only,
 * hidden and system files.
 *
 * Return 0, -EINVAL (the root directory is not open), -EEXIST, -ENOSPC, -EIO, -ENOMEM or the error
 * of creating and opening the file. Files and clusters created before a failure stay.
 */
int zuq_make_pool(void);
int zuq_make_log(void);

/*
 * Finds the first cluster with a number of at least `key` in the chain of the pool file in the
 * current directory; with `key` 0, the second cluster of the chain. Every call opens an id and
 * leaves it open. Returns the cluster, -ENOENT (no such cluster), or the error of fat_open_file()
 * or of the chain.
 */
int fat_find_pool(uint32_t key);

/*
 * Stores in `path` (20 bytes) the path by which the ZUQ driver opens a file without a search:
 * "<?>", the position of its directory entry on the volume and a check value computed from its
 * first cluster and size, 8 letters each. `name` is never written and must not be NULL. Returns 0
 * or -EINVAL (NULL, no such id, the root directory, no volume is open).
 */
int zuq_get_fast_open_path_of_file(int id, char *name, char *path);

/*
 * Stores in `path` (20 bytes) the fast-open path of the next file in an open directory. Call it as
 * long as it returns 1; open the directory again to restart. Zeroes `name`, which has 256 bytes. If
 * the call passes a long name, of the file itself or of a directory before it, the check value is
 * computed from the first slot of that name instead of the file's short entry.
 *
 * Returns 1, 0 or -ENOENT at the end of the directory (`path` is then not valid), -EINVAL (NULL, no
 * such id, the volume is not mounted, a broken directory), -EIO, -ENOMEM, -EFAULT (past a FAT16
 * root directory without unused entries, or a chain that ends within a long name), or -1 for a
 * broken chain and for calls after the end of a FAT16 root directory. Never returns the last file
 * of a directory without unused entries.
 */
int zuq_get_fast_open_path_of_dir(int id, char *name, char *path);

/* ---- import, listings, dumps ----------------------------------------------------------------- */

/*
 * Copies a regular file of the host, or a symbolic link as a link, into the volume, in chunks of up
 * to 8 MiB. With `show_progress` other than 0 a line on standard output counts the bytes.
 *
 * Returns 0, also if reading the host file or writing to the volume fails midway: the file then has
 * the length written so far, and a failed write prints a diagnostic. Otherwise returns
 *   -EINVAL  NULL path, neither a regular file nor a link, no volume is open
 *   the errno of lstat(), open() or readlink(), -ENOMEM, or the error of fat_create_file() or
 *   fat_create_symlink()
 */
int fat_copy_to_zuq(const char *host_path, const char *volume_path, int show_progress);

/*
 * Prints the entries of an open directory to `stream` (NULL: standard output, here and below): kind
 * (d or f), size in bytes, name. Intentional: prints a diagnostic of do_readdir() at the end of
 * every directory. Returns 0, -EINVAL (NULL directory, the volume is not mounted) or -ENOMEM.
 */
int fat_readdir(oentry *dir, FILE *stream);

/*
 * Prints a directory to `stream`: with `mode` 0 as fat_readdir(), else one line for each 32-byte
 * entry, up to the first unused one of each cluster; with `mode` 2 the fields of each entry too.
 * NULL selects the root and makes it the current directory; "/" works for a FAT16 root with `mode`
 * 0 only. Returns 0, the error of opening it, -EINVAL, -EIO or -ENOMEM. After a broken chain the id
 * that the call opened stays open.
 */
int fat_list_dir(const char *path, int mode, FILE *stream);

/*
 * Prints the 32-byte entries of one cluster; `mode` as for fat_list_dir(). Returns the number of
 * sectors read, -EINVAL (no such cluster, the volume is not mounted), -EIO or -ENOMEM.
 */
int fat_list_clus(uint32_t cluster, int mode, FILE *stream);

/*
 * Prints the 32-byte entries in a file of the host, counted from 1; `mode` as for fat_list_dir().
 * Needs no volume. Returns 0, -EINVAL (NULL), -ENOMEM or the errno of open().
 */
int fat_list_entries(const char *host_path, int mode, FILE *stream);

/*
 * Stores in `uname` (256 units) the long name whose first slot is entry `index` of an open
 * directory. A name of 256 units has no terminator. Returns the number of its slots, 0 for a broken
 * name, or -EBADF (no such id), -EINVAL (NULL, not a slot, the volume is not mounted), -EFAULT
 * (past the end), -EIO, -ENOMEM.
 */
int fat_get_uname(int id, uint32_t index, uint16_t *uname);

/*
 * Copy sectors of the volume into the file `image_path` of the host, which is created or truncated:
 * the reserved area and the first FAT; one cluster; the bytes of a file or link, or the clusters of
 * a directory (except the FAT32 root: -EINVAL). Sectors copied before a failure stay in the file.
 * The path must not be that of the volume, which would be truncated.
 *
 * fat_dump_fat0() returns 0, the other two the number of sectors of the last cluster copied (0 for
 * the FAT16 root and for an entry without clusters), or
 *   -EINVAL  NULL path, the volume is not mounted, no such cluster, a broken chain
 *   -EIO     a transfer or writing the file failed
 *   -ENOMEM, the errno of open(), or the error of fat_open()
 */
int fat_dump_fat0(const char *image_path);
int fat_dump_clus(uint32_t cluster, const char *image_path);
int fat_dump(const char *volume_path, const char *image_path);

/* ---- printers -------------------------------------------------------------------------------- */

/* Prints the format request to standard output. */
void print_format_param(const fat_format_param *param);

/* Prints the geometry of the open volume to `stream`, in eleven lines. */
void print_volume_summary(FILE *stream);

/*
 * Print to standard output the volume record, an open entry, slot `index` of the table of open
 * entries, and one value of the FAT (`arg` is not used). A `level` of 3 or more prints nothing.
 */
void print_volume_info(int level);
void print_oentry(int level, const oentry *entry);
void test_oentry(int level, uint32_t index);
void print_fat_value(int level, uint32_t cluster, int arg);

/*
 * Prints up to 256 UTF-16 units, stopping at a 0, and a newline to standard output, in the encoding
 * of the program's locale; "?" for each character that the encoding cannot represent.
 */
void print_uname(const uint16_t *uname);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
