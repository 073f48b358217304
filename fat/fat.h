/*
 * quorvel: a library for FAT16 and FAT32 volumes on NAND-flash block devices and image files.
 *
 * Conventions
 *  1. Results are int: 0, a count or an index on success, a negative errno value on failure, unless
 *     a function says otherwise.
 *  2. One volume is open at a time, in the global `sv`. The library runs on one thread.
 *  3. Strings are NUL-terminated and stay the caller's; none is kept after a call.
 *  4. Sizes are in bytes, sector numbers count from the start of the target in units of the
 *     volume's sector size, cluster numbers count from 2.
 *  5. Diagnostics go to one stream, standard error unless fat_set_diagnostics() chose another.
 *  6. Where "no volume is mounted" is an error, one that was formatted and not mounted yet serves
 *     the calls that need no directory.
 *
 * The on-medium format is FAT16 and FAT32 with long names as fatgen103, the white paper on the FAT
 * file system, describes it.
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

/* An open file or directory; only the library looks inside. */
typedef struct oentry oentry;

/* ---- records --------------------------------------------------------------------------------- */

/*
 * The format request. Zero-fill it, set what matters, let check_format_param() fill the rest, hand
 * it to fat_format(). Strings stay the caller's.
 */
typedef struct fat_format_param {
    uint32_t fat_size;       /* FAT width in bits: 16, 32, or 0: chosen by the cluster count */
    uint32_t sec_per_clus;   /* sectors per cluster, a power of two from 1 to 64; 0: 1 */
    uint32_t sector_size;    /* bytes, a power of two from 512 to 4096; 0: 4096 */
    char *outfile;           /* path of the target */
    char *infile;            /* not used by formatting */
    uint32_t page_size;      /* NAND page in bytes that every area is aligned to; 0: no alignment.
                                check_format_param() makes it 4096 unless fat_page_size_given */
    uint32_t root_entries;   /* FAT16 root-directory entries; formatting rounds up to full sectors.
                                check_format_param() sets it: change it after that call */
    uint32_t nr_rsvd_sec;    /* sectors before the first FAT; formatting stores its choice here */
    uint8_t long_name;       /* 1: names longer than 8.3 are written and read */
    uint32_t nr_fat;         /* FAT copies, 1 to 255; 0: 2 */
    uint32_t sector_of_bkup; /* not consulted: FAT32 keeps its backup boot sector in sector 6 */
    uint32_t volume_id;      /* serial number; 0: the present time */
    char volume_label[12];   /* 11 bytes padded with blanks, and a NUL; empty: 11 blanks */
} fat_format_param;

/* The open volume. The geometry is zero until the volume is formatted or mounted. */
typedef struct fat_super {
    int fd;                   /* descriptor of the target; sector transfers refuse 2 and less */
    uint64_t vol_size;        /* bytes of the target */
    uint32_t fat_type;        /* 16 or 32 */
    uint32_t fat_size;        /* sectors of one FAT copy */
    uint32_t total_sectors;   /* sectors of the volume */
    uint32_t num_clusters;    /* data clusters; their numbers are 2 to num_clusters + 1 */
    uint32_t sector_size;     /* bytes; 0: not known yet, transfers count in 4096 bytes */
    uint32_t sec_per_clus;    /* sectors of one cluster */
    uint32_t root_clus;       /* FAT32: first cluster of the root directory; FAT16: 0 */
    uint32_t fat_start;       /* first sector of FAT copy 0 */
    uint32_t rdir_start;      /* first sector of the root directory */
    uint32_t data_start;      /* first sector of cluster 2 */
    uint32_t pbr_start;       /* sector of the boot sector */
    uint32_t last_alloc_clus; /* where the search for a free cluster goes on; 0: from the start */
    uint8_t long_name;        /* 1: long names are written and read */
    oentry *root_dir;         /* the open root directory, NULL before mounting */
    oentry *current_dir;      /* the directory that relative paths start from */
    iconv_t cd_to_uni;        /* converter from the caller's encoding, NULL: plain ASCII */
    iconv_t cd_from_uni;      /* converter to the caller's encoding, NULL: plain ASCII */
    char dev_path[4096];      /* path of the target */
} fat_super;

/* ---- process-wide state ---------------------------------------------------------------------- */

/* The open volume, NULL when none is. */
extern fat_super *sv;

/*
 * Transfers `count` sectors between `buf` and the volume, starting at `sector`. The unit is the
 * volume's sector size, or 4096 bytes while that is 0. Returns the number of whole sectors
 * transferred, or a negative errno. Every access of the library goes through these two;
 * fat_open_volume() points them at the target, and a program may put its own in after it.
 */
typedef int (*fat_sector_io)(void *buf, uint64_t sector, uint32_t count);
extern fat_sector_io read_sectors, write_sectors;

/* The open entries by id, and a bit for each id in use. */
extern oentry *oentry_table[512];
extern uint32_t oentry_map[16];

/*
 * The permission mode, off at start. While perm_enable is 1, new entries carry an identifier in
 * place of their creation time and permission bits of a mode word (octal layout) in their cmsec and
 * attribute bytes; the _parent pair is for the ".." entry of a new directory.
 */
typedef struct fat_permissions {
    uint32_t perm_enable;
    uint16_t perm_id, perm_id_parent;
    uint32_t perm_mode, perm_mode_parent;
} fat_permissions;
extern fat_permissions fat_perm;

/* Not zero when a page size was given for the format request, zero included: its default is then
 * left alone. Option parsing sets it; a program sets it to keep its own page_size. */
extern int fat_page_size_given;

/* ---- what an embedding program may set ------------------------------------------------------- */

/*
 * Sends diagnostics to `stream`; NULL silences them. The stream stays the caller's and must be
 * valid as long as it is chosen. What the library prints to standard output is not affected.
 */
void fat_set_diagnostics(FILE *stream);

/* The library's only source of the present time; time() at start. Must not be NULL. */
extern time_t (*fat_clock)(time_t *);

/* ---- format ---------------------------------------------------------------------------------- */

/*
 * Checks the requested cluster size and fills every default of the request.
 *
 * The size test sees sec_per_clus x sector_size as the caller gave them, before any default: 64
 * sectors per cluster with no sector size passes and becomes 64 x 4096 bytes.
 *
 * Returns 0, or -1 with a message when the cluster would be larger than 32768 bytes; the request
 * is then unchanged.
 */
int check_format_param(fat_format_param *param);

/*
 * Lays a fresh file system onto the open volume: boot sector, FSInfo, every FAT copy and an empty
 * root directory, in this order. Of the data area only the cluster of a FAT32 root directory is
 * written. The geometry is left in `sv`; fat_size, nr_rsvd_sec and root_entries of the request
 * receive what was chosen.
 *
 * Needs memory for one FAT copy and the root directory. Nothing is synchronised to the medium. Ids
 * that are open name nothing on the new file system: close them before.
 *
 * Returns the number of root-directory sectors written (positive), or
 *   -EINVAL  no volume is open, the request is none that a volume can have, or its cluster count
 *            does not fit the target; nothing was written
 *   -ENOMEM  nothing was written
 *   -EIO     a transfer failed; what was written before it stays
 * Of a target of 2^32 sectors or more only the size modulo 2^32 sectors is used.
 */
int fat_format(fat_format_param *param);

/* ---- volume ---------------------------------------------------------------------------------- */

/*
 * Opens an existing image file or block device for reading and writing as the one open volume.
 * `long_name` other than 0 turns long names on; `mode` must be 0. No other volume may be open: it
 * would be replaced without being released.
 *
 * Returns the descriptor (0 or more), which the volume owns, or
 *   -EINVAL        NULL path, another mode, or neither a regular file nor a block device
 *   -ENAMETOOLONG  a path of more than 4095 bytes
 *   -EACCES        a block device that does not tell its size
 *   -ENOSPC        an empty target
 *   -ENOMEM, or the errno of open()
 * After -EACCES, -ENOSPC and the -EINVAL of a wrong kind of target the descriptor stays open.
 */
int fat_open_volume(const char *path, uint8_t long_name, int mode);

/*
 * Closes the volume and all its open entries. With `compact` 1 an image file is also cut behind its
 * last cluster in use; lengths of 4 GiB and more are not served by that. The two highest cluster
 * numbers of the volume are never looked at: on a volume that is full to its end, what they hold is
 * cut off when the search for free clusters has begun anew below them.
 *
 * Returns 0, also when no volume is open; with `compact` 1 also -1 when the file cannot be cut, or
 * a negative errno when the FAT cannot be read: then the volume stays open, without open entries
 * and without an encoding. That is also what becomes of a volume from which nothing was allocated
 * since it was mounted, of one that was neither formatted nor mounted, and of one whose mount was
 * refused.
 */
int fat_close_volume(int compact);

/*
 * Creates, or empties, the file `path` and fills it with `count` blocks of `chunk` zero bytes. It
 * becomes no open volume, but read_sectors and write_sectors are pointed at the file transfers.
 *
 * Returns a descriptor that the caller closes, or the errno of open(), -ENOMEM or -EIO.
 */
int create_fat_volume(const char *path, uint32_t chunk, int count);

/*
 * Mounts the formatted volume that is open: reads its boot sector into `sv`, opens the root
 * directory as id 0 and makes it the current directory. Boot sector fields are those of fatgen103;
 * the FAT width follows from the cluster count alone. A volume that claims more sectors than the
 * target has is mounted. Ids of an earlier mount stay open as they are: close them before.
 *
 * Returns 0, or
 *   -EINVAL  no volume is open, no boot sector, one whose numbers contradict each other, fewer than
 *            4085 clusters, or a root directory whose chain is broken
 *   -EIO, -ENOMEM
 * On failure the volume stays open and is to be closed.
 */
int fat_build_super(void);

/*
 * Prints the boot sector field by field to `stream`.
 * Returns 0, -EINVAL (no volume is open, no boot sector), -EIO or -ENOMEM.
 */
int fat_print_pbr(FILE *stream);

/*
 * Prints where the search for a free cluster goes on. Returns what fprintf() returns, or -EINVAL
 * without a stream.
 */
int print_alloc_hint(FILE *stream);

/*
 * Copies the volume into the new image `path` where sectors lie in front of its boot sector. The
 * boot sector is always looked for in sector 0, so that nothing is ever copied.
 * Returns 0, -EINVAL (no volume is open, no boot sector), -EIO or -ENOMEM.
 */
int fat_delete_mbr(const char *path);

/*
 * Chooses the character encoding of the names that the library takes and gives, by its iconv name
 * ("UTF-8", "ISO-8859-1", ...). Until then names with a long form are plain ASCII. It holds until
 * another is chosen or the volume is closed. Characters beyond U+FFFF have no conversion.
 *
 * Returns 0, also when no volume is open or `charset` is NULL (nothing is done), or -EINVAL when
 * the system has no such conversion; a direction that it does have is then in use.
 */
int fat_set_encoding(const char *charset);

/* ---- open entries ---------------------------------------------------------------------------- */

/*
 * An id names an open file or directory: 1 to 511, the lowest free one; 0 is the root directory.
 * Each opening has an id and a copy of the directory entry of its own, so that two ids of one file
 * do not see each other's changes: what one appended, an append through the other overwrites, and
 * clusters are lost. Append through one id only, and open again to see what it wrote.
 *
 * A path that begins with "/" starts at the root, any other at the current directory, and it leads
 * one level deep: its components in front of the last may only be ".".
 */

/*
 * Opens a file or directory. Returns its id (0 for the root, which "/" and "" name), or
 *   -EINVAL        NULL path, a path that leads deeper, a forbidden name, a broken chain
 *   -ENAMETOOLONG  a path of more than 260 characters
 *   -ENOENT        no such name
 *   -EFAULT        no volume is mounted
 *   -EMFILE        all ids are given out
 *   -EIO, -ENOMEM
 */
int fat_open(const char *path);

/* The same, for directories only: -ENOTDIR for anything else. NULL opens the root anew and makes it
 * current; the id of the directory that was current is not given back by that: call
 * fat_set_current(0) before. Errors are stored in errno as well. */
int fat_open_dir(const char *path);

/* The same, for anything but directories: -EISDIR. Errors are stored in errno as well. */
int fat_open_file(const char *path);

/*
 * Gives an id back. What was changed in its copy of the directory entry and not written is lost.
 * Returns 0, or -EINVAL for 0 and for 512 and more. A negative id is ignored.
 */
int fat_close(int id);

/* Returns the id of the current directory, -1 when there is none, or -EINVAL. */
int get_current(void);

/*
 * Makes an open directory the current one; it stays open as long as it is, even when its id is
 * closed once. Returns `did`, -EBADF (no such id), -ENOTDIR, or what get_current() fails with.
 */
int fat_set_current(int did);

/* ---- namespace ------------------------------------------------------------------------------- */

/*
 * Create an empty file, or a directory with its "." and "..". A name that does not fit 8.3 in one
 * case gets a long name while long names are on. Paths as for fat_open().
 *
 * Return the id of the new entry, open, or
 *   -EEXIST        the name exists
 *   -ENOSPC        no room in the directory or on the volume, or the directory cannot be read
 *   -EFAULT        no volume is mounted
 *   -EINVAL        NULL path, forbidden name, a path that leads deeper
 *   -ENAMETOOLONG  a path of more than 260 characters
 *   -EMFILE        created, but all ids are given out
 *   -EIO, -ENOMEM  the FAT and the directory may have changed in part: see docs/power-loss.md
 */
int fat_create_file(const char *path);
int fat_mkdir(const char *path);

/*
 * Creates a symbolic link that holds the text `target`, 1 to 260 characters. The library follows no
 * links. Returns 0, the errors of fat_create_file(), or the error of writing the target: the link
 * is then left empty.
 */
int fat_create_symlink(const char *target, const char *path);

/*
 * Removes a file, a symbolic link or an empty directory with its clusters. The long-name slots of
 * the name stay behind, unused. A file to which nothing was ever written has no clusters and is
 * refused with -EINVAL: fat_rm_entry() removes it.
 *
 * Nobody asks whether the name is open or the current directory: close its ids and leave the
 * directory before. What is written through them afterwards goes into clusters that are free, or
 * another file's.
 *
 * Returns the entries marked as removed, 1 or more, or -ENOENT, -ENOTEMPTY, -ENAMETOOLONG, -EIO,
 * -ENOMEM; -EINVAL also when all ids are given out; -EFAULT when no volume is mounted, or for an
 * entry beyond the 512th of a FAT16 root directory.
 */
int fat_unlink(const char *path);

/*
 * Removes the directory entry alone: its clusters, and whatever lies in a directory removed so,
 * stay allocated and cannot be reached any more. Results as fat_unlink(); nothing is -ENOTEMPTY.
 */
int fat_rm_entry(const char *path);

/* ---- data ------------------------------------------------------------------------------------ */

/*
 * Appends `count` bytes to an open file, whatever the position of its id is, and writes its
 * directory entry. The buffer stays the caller's.
 *
 * Returns `count`, or a negative errno, which is also stored in errno save for -EINVAL of a NULL
 * buffer, a zero count or no volume:
 *   -EINVAL  no such id       -EISDIR  a directory
 *   -ENOSPC  no room; the file is as it was. An id that had no clusters is to be closed: it keeps
 *            the number of one that is free again
 *   -EFAULT  the chain is shorter than the file; -EINVAL also: a broken FAT
 *   -EFBIG   the file would reach 4 GiB, or `count` is above INT_MAX; nothing has changed
 *   -EIO     a transfer failed: clusters of this call are free again and the size is the old one,
 *            unless the directory entry itself could not be written
 *   -ENOMEM
 */
int fat_write_file(int id, const void *buffer, uint32_t count);

/*
 * Reads up to `count` bytes at the position of the id and moves it behind them. The end of the file
 * is where the id's own copy of the directory entry has it.
 *
 * Returns the bytes read, 0 at the end of the file, or a negative errno, stored in errno as above:
 * -EINVAL (no such id, a position behind the end of the file, a broken chain), -EISDIR, -EFAULT (a
 * chain shorter than the file), -EIO, -ENOMEM. The position has then not moved.
 */
int fat_read_file(int id, void *buffer, uint32_t count);

/*
 * Moves the position of an open file to `offset` from its beginning (`whence` 0), from the position
 * (1) or from the end (2), modulo 2^64. A position behind the end is stored; reading there fails.
 * Returns the new position, or -EINVAL (no such id, another `whence`) or -EISDIR.
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
 * cluster, 2: byte 12 (case bits of the short name), 3: byte 13 (0xE2 marks a symbolic link); of
 * the last two the low 8 bits are stored. Only the copy changes: fat_update_entry() writes it, and
 * the chain that the id reads and appends to stays the one it was opened with.
 *
 * Return 0, -EBADF (no such id, or the root directory) or -EINVAL (another type, NULL `value`, no
 * volume is open). fat_set() says nothing about -EBADF.
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
 * Returns 0, -EBADF (no such id, or the root directory), or what fat_list_chains() fails with.
 */
int fat_fstat(int id, FILE *stream);

/*
 * Prints the clusters of an open entry to `stream` (NULL: standard output), ten in a line.
 * Returns 0, also for an entry without clusters, of which it says so; -EBADF (no such id), -EINVAL
 * (the FAT16 root directory, a broken chain, no volume is open) or -ENOMEM.
 */
int fat_list_chains(int id, FILE *stream);

/*
 * Stores in `buffer` (`size` bytes, 4096 or more) the absolute path of the file, link or directory
 * whose chain contains the cluster.
 *
 * Returns the index of its entry in its directory, or
 *   -EINVAL        NULL buffer, a small one, no such cluster, a broken directory
 *   -ENOENT        the cluster is free, lost, or the root directory's
 *   -ENAMETOOLONG  a path of 4096 bytes or more
 *   -EMFILE        too many ids are given out: one is used for each level
 *   -EIO, -ENOMEM
 */
int fat_find_pathname(uint32_t cluster, char *buffer, uint32_t size);

/*
 * Stores the absolute path of the current directory in `buffer`: 2 bytes are enough for the root
 * directory, any other takes 4096. Returns 0, or what fat_find_pathname() fails with.
 */
int fat_getcwd(char *buffer, uint32_t size);

/* ---- programs' own listings ------------------------------------------------------------------ */

/* What a directory entry says, and the name that a person sees. */
typedef struct fat_entry_info {
    char name[768];      /* long name in the chosen encoding, else the short name; never empty */
    char short_name[13]; /* as stored, in upper case: "NAME.EXT" */
    uint8_t type;        /* 2 file, 3 directory, 7 symbolic link, 8 volume label */
    uint8_t attr;        /* 0x01 read-only, 0x02 hidden, 0x04 system, 0x08 label, 0x10 directory */
    uint8_t cmsec;       /* 0xE2 for a symbolic link */
    uint16_t mtime;      /* modification: hours << 11 | minutes << 5 | seconds / 2 */
    uint16_t mdate;      /* modification: (year - 1980) << 9 | month << 5 | day */
    uint32_t size;       /* bytes; 0 for a directory */
    uint32_t start;      /* first cluster, 0: none */
    uint32_t index;      /* of the short entry in its directory */
} fat_entry_info;

/*
 * Gives the entries of an open directory one after another, "." and ".." and a volume label
 * included, removed ones and a blank label left out. Begin with `*index` 0; each call moves it
 * behind the entry that it gives. Between calls the directory may change: what is added behind
 * `*index` is seen. A long name that the chosen encoding does not have (ASCII while none is chosen)
 * is replaced by the short one, as all are while long names are off. Silent.
 *
 * Returns 1, 0 at the end of the directory (`info` is then not written), or
 *   -EINVAL   NULL pointer, no volume is mounted (this is said), a broken directory
 *   -EBADF    no such id
 *   -ENOTDIR  the id of no directory
 *   -EIO, -ENOMEM
 */
int fat_next_entry(int did, uint32_t *index, fat_entry_info *info);

/*
 * Tells what an open entry is: attributes, times, size and first cluster as its own copy of the
 * directory entry has them, its name and index as they stand on the medium. The root directory is
 * called "/", with an empty short name and index 0. Silent.
 *
 * Returns 0, or
 *   -EINVAL  NULL pointer, no volume is mounted (this is said), a broken parent directory
 *   -EBADF   no such id
 *   -ENOENT  the entry has been removed
 *   -EIO, -ENOMEM
 */
int fat_info_of(int id, fat_entry_info *info);

/* ---- ZUQ ------------------------------------------------------------------------------------- */

/*
 * Make the reserved files of the ZUQ flash driver in the root directory: the pool file
 * "ZUQ_POOL.SY$" of one cluster that begins with a header of seven words, and the log file
 * "$ZUQ_LOG.LO$" of cleared clusters, 128 KiB rounded up. Both are read-only, hidden and system
 * files.
 *
 * Return 0, -EINVAL (the root directory is not open), -EEXIST, -ENOSPC, -EIO, -ENOMEM or the error
 * of creating and opening the file. What was made before a failure stays.
 */
int zuq_make_pool(void);
int zuq_make_log(void);

/*
 * Finds in the chain of the pool file of the current directory the first cluster whose number is at
 * least `key`, or, for 0, the second one. Every call opens an id and leaves it open.
 * Returns the cluster, -ENOENT (there is none), or the error of fat_open_file() or of the chain.
 */
int fat_find_pool(uint32_t key);

/*
 * The path by which the ZUQ driver opens a file without a search: "<?>", the position of its
 * directory entry on the volume and a check value made of its first cluster and size, 8 letters
 * each; `path` has 20 bytes, `name` is not written and must not be NULL.
 * Returns 0 or -EINVAL (NULL, no such id, the root directory, no volume is open).
 */
int zuq_get_fast_open_path_of_file(int id, char *name, char *path);

/*
 * Gives the fast-open paths of the files in an open directory, one with each call, as long as it
 * returns 1. `path` has 20 bytes; `name` has 256, which are zeroed. Where the call meets a long
 * name on its way, be it the file's own or that of a directory in front of it, the check value is
 * made of the first slot of that name instead of the file's short entry.
 *
 * Returns 1, 0 or -ENOENT at the end of the directory (`path` is then of no use), -EINVAL (NULL, no
 * such id, no volume is mounted, a broken directory), -EIO, -ENOMEM, -EFAULT (behind a FAT16 root
 * directory whose entries are all used, or a chain that ends in a long name), or -1 for a broken
 * chain and further behind the end of a FAT16 root directory. Open the directory again to begin
 * anew. The last file of a directory in which no entry is free is not given.
 */
int zuq_get_fast_open_path_of_dir(int id, char *name, char *path);

/* ---- import, listings, dumps ----------------------------------------------------------------- */

/*
 * Copies a regular file, or a symbolic link as such, of the host into the volume, in pieces of up
 * to 8 MiB. With `show_progress` other than 0 a line on standard output counts the bytes.
 *
 * Returns 0, also when the host file cannot be read or the volume not be written to the end: the
 * latter is said, and the file is as long as what was written. Or
 *   -EINVAL  NULL path, neither a regular file nor a link, no volume is open
 *   the errno of lstat(), open() or readlink(), -ENOMEM, or the error of fat_create_file() or
 *   fat_create_symlink()
 */
int fat_copy_to_zuq(const char *host_path, const char *volume_path, int show_progress);

/*
 * Prints the entries of an open directory to `stream` (NULL: standard output, here and below): kind
 * (d or f), size, name. Says that do_readdir() failed when the directory ends. Returns 0, or
 * -EINVAL (NULL, no volume is mounted) or -ENOMEM.
 */
int fat_readdir(oentry *dir, FILE *stream);

/*
 * Prints a directory (NULL: the root, which becomes the current directory by that; "/" does not do
 * for a FAT16 root and a `mode` other than 0) to `stream`: with `mode` 0 as fat_readdir(), else
 * each 32-byte entry in a line, up to the first unused one of each cluster; with 2 the fields of
 * each as well. Returns 0, the error of opening it, -EINVAL, -EIO or -ENOMEM. After a broken chain
 * the id that was opened for the listing stays open.
 */
int fat_list_dir(const char *path, int mode, FILE *stream);

/*
 * Prints the entries of one cluster so. Returns the sectors read, -EINVAL (no such cluster, no
 * volume is mounted), -EIO or -ENOMEM.
 */
int fat_list_clus(uint32_t cluster, int mode, FILE *stream);

/*
 * Prints the 32-byte entries of a file of the host so, counted from 1. Needs no volume.
 * Returns 0, -EINVAL (NULL), -ENOMEM or the errno of open().
 */
int fat_list_entries(const char *host_path, int mode, FILE *stream);

/*
 * Stores in `uname` (256 units) the long name whose first slot is entry `index` of an open
 * directory; without a terminator where it fills them all.
 * Returns its slots, 0 for a broken name, or -EBADF (no such id), -EINVAL (NULL, no slot, no volume
 * is mounted), -EFAULT (behind the end), -EIO, -ENOMEM.
 */
int fat_get_uname(int id, uint32_t index, uint16_t *uname);

/*
 * Copy sectors of the volume into the file `image_path` of the host, which is created or emptied:
 * the reserved area and the first FAT; one cluster; the bytes of a file or link, or the clusters of
 * a directory (the FAT32 root excepted: -EINVAL). What was written before a failure stays. The
 * path must not be that of the volume, which would be emptied.
 *
 * Return 0 or, the last two, the sectors read last, or
 *   -EINVAL  NULL path, no volume is mounted, no such cluster, a broken chain
 *   -EIO     a transfer failed, or the image could not be written
 *   -ENOMEM, the errno of open(), or the error of fat_open()
 */
int fat_dump_fat0(const char *image_path);
int fat_dump_clus(uint32_t cluster, const char *image_path);
int fat_dump(const char *volume_path, const char *image_path);

/* ---- printers -------------------------------------------------------------------------------- */

/* Prints the format request to standard output. */
void print_format_param(const fat_format_param *param);

/* Prints the geometry of the open volume to `stream`, eleven lines. */
void print_volume_summary(FILE *stream);

/*
 * Print to standard output the volume record, an open entry, what a slot of the table holds, and
 * one value of the FAT (`arg` is not used). A `level` of 3 or more prints nothing.
 */
void print_volume_info(int level);
void print_oentry(int level, const oentry *entry);
void test_oentry(int level, uint32_t index);
void print_fat_value(int level, uint32_t cluster, int arg);

/*
 * Prints up to 256 UTF-16 units, or as many as come before a 0, and a newline to standard output,
 * in the encoding of the program's locale; "?" for what it does not have.
 */
void print_uname(const uint16_t *uname);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif
