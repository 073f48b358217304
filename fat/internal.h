// What the sources of the library share. Outside fat/ only qvol and the tests include this.
//
// Layers, from the ground up:
//   diag, bytes, layout, resources  ground
//   volume                          the open target and its sectors
//   param, geometry, bootsector, format
//                                   laying a fresh file system
//   fatent, chain                   FAT entries and links, cluster chains
//   dentry, name, encoding, lookup, build
//                                   directory entries and their names: reading, finding, writing
//   namei                           paths
//   oentry                          open entries
//   mount                           opening a formatted volume
//   create, remove, file            names, and the data of files
//   list, debug                     listings and printers
//   entries, metadata, zuq, fastpath, import, dump
//                                   what programs do with open entries and whole volumes
// Each calls those above it in this list. These calls go the other way and are meant: releasing a
// volume frees its open entries (oentry) and converters (encoding), and compacting an image reads
// its FAT (fatent); a new root directory gets its label entry (build); a chain that grows tells the
// open entries of its directory (oentry); a path lookup makes a record for "./name" (oentry).

#pragma once

#include "fat/bytes.h"
#include "fat/diag.h"
#include "fat/fat.h"
#include "fat/layout.h"
#include "fat/resources.h"

#include <ctime>
#include <iterator>

#include <sys/types.h>

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

// ---- public calls -----------------------------------------------------------------------------

// With no volume open a public call says so, in its own name, and fails.
[[nodiscard]] bool no_volume(const char *function);

// The same for calls that need the geometry, which formatting and mounting find out.
[[nodiscard]] bool not_mounted(const char *function);

// Stores the magnitude of a negative result in errno. Returns the result.
int with_errno(int result);

// The stream of a listing: null stands for standard output.
[[nodiscard]] inline FILE *stream_or_stdout(FILE *stream) {
    return stream != nullptr ? stream : stdout;
}

// A text for "%s", which takes no null.
[[nodiscard]] constexpr const char *text_or_null(const char *text) {
    return text != nullptr ? text : "(null)";
}

// ---- volume -----------------------------------------------------------------------------------

// The unit of sector transfers while the sector size of the volume is not known, in bytes.
inline constexpr u32 UNKNOWN_SECTOR_SIZE = 4096;

// The unit of sector transfers now, in bytes: a buffer for one sector has this size.
[[nodiscard]] u32 transfer_unit();

// Permission bits of the image files that the library makes.
inline constexpr mode_t IMAGE_MODE = 0660;

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

// Sectors that were read together because a walk goes through them in their order. Lives inside one
// call, and is to be told of what that call writes.
struct sector_window {
    heap_ptr<u8> buffer;
    u32 room = 0;          // sectors that the buffer takes
    u64 first = 0;         // sector that it begins with
    u32 count = 0;         // sectors that it holds, 0: none
    u32 in_order = 0;      // sectors that the walk has passed without a jump, kept by its owner
    u64 singles_below = 0; // sectors below this are read one by one: together they did not come

    // The bytes of a sector, null where the window does not hold it.
    [[nodiscard]] u8 *find(u64 sector) const;
};

// Makes room for one sector at least. False when there is no memory.
[[nodiscard]] bool reserve_sector(sector_window *window);

// Reads `count` sectors, or as many as a window is to hold, where that is more than one. True when
// the window holds `sector` then. Otherwise the caller reads the one sector: a bad sector further
// on, a short transfer or a lack of memory are nobody's failure here.
[[nodiscard]] bool read_ahead(sector_window *window, u64 sector, u32 count);

// Puts what was written to a sector into the window that holds it.
void refresh_sector(sector_window *window, u64 sector, const u8 *content);

// Takes a sector of which nothing is known any more out of the window, with all others.
void forget_sector(sector_window *window, u64 sector);

// ---- format -----------------------------------------------------------------------------------

inline constexpr u32 MIN_SECTOR_SIZE = 512;
inline constexpr u32 MAX_SECTOR_SIZE = 4096;
inline constexpr u32 MAX_SECTORS_PER_CLUSTER = 64;

// Bytes of one cluster of the volume.
[[nodiscard]] inline u32 cluster_bytes() {
    return sv->sec_per_clus * sv->sector_size;
}

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
// hold the decisions. Returns 0, -EINVAL after telling why the volume cannot be, or -1.
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

// Changes to FAT entries within one public call. With `gathers` set, the changes of one sector are
// written together, when a change moves on to another sector or at flush_editor(): each write then
// stands where the last change of its sector stood. Otherwise every change is written at once.
struct fat_editor {
    bool gathers = false;
    bool dirty = false;        // what `changed` holds is not on the medium yet
    bool write_failed = false; // some write did
    u32 step = 0;              // counted by the owner
    u32 dirty_since = 0;       // the step of the first change that the last write carried
    sector_window changed;     // the one sector that is being changed
    sector_window seen;        // others, looked at in between
};

// Finds out that a chain runs in a circle, in time proportional to the circle and with no memory of
// the clusters passed: the anchor is moved up at distances that double (Brent).
struct circle_guard {
    u32 anchor = 0;
    bool has_anchor = false;
    u32 span = 1;  // steps from one anchor to the next
    u32 steps = 1; // since the anchor was set

    // To be called with each cluster of the chain in turn, or with `count` of them whose numbers go
    // up one by one. True when the chain has come back, to the anchor.
    [[nodiscard]] bool closes_at(u32 cluster);
    [[nodiscard]] bool closes_within(u32 first, u32 count);
};

[[nodiscard]] bool is_data_cluster(u32 cluster);

// Whether a FAT value ends a chain.
[[nodiscard]] bool is_end_of_chain(u32 value);

// The FAT value of a cluster that cannot be used.
[[nodiscard]] u32 bad_mark();

// Stores the value of a FAT entry, without its reserved bits, in `value`. The number is not checked
// against the volume. Returns 0, -EINVAL, -ENOMEM or -EIO.
[[nodiscard]] int fat_read_entry(u32 cluster, u32 *value);

// Changes one entry of the first FAT: its sector is read, changed and written back. The reserved
// bits of a FAT32 entry stay. Returns 0, -EINVAL, -ENOMEM or -EIO; the FAT is unchanged unless the
// write itself failed.
[[nodiscard]] int fat_write_entry(u32 cluster, u32 value);

// fat_write_entry() within an editor, and the write of what it gathered. The owner of a gathering
// editor flushes it at its end. Results and messages are those of fat_write_entry().
[[nodiscard]] int edit_entry(fat_editor *editor, u32 cluster, u32 value);
[[nodiscard]] int flush_editor(fat_editor *editor);

// Follows one link: 0 for a free entry, the end-of-chain value, the next cluster, or a negative
// errno for a number that is no data cluster, an entry that is no link, or a failed read.
[[nodiscard]] int fat_read_clus(u32 cluster);

// The same for walks, which read a FAT sector once while they stay in it. An editor writes what it
// gathered before it tells a failure; where that fails, it is the failure.
[[nodiscard]] int follow_link(sector_window *fat, u32 cluster);
[[nodiscard]] int follow_link(fat_editor *editor, u32 cluster);

// How many links from `cluster` on lead from each cluster to the one behind it, as far as the
// window shows, but `most` at most. Nothing is read for it.
[[nodiscard]] u32 count_straight_links(const sector_window &fat, u32 cluster, u32 most);

// The lowest free cluster from `first` to `last`, both included; -ENOENT when there is none, or the
// error of the first entry that cannot be read or is no link.
[[nodiscard]] int fat_free_clus(u32 first, u32 last);

// The same as an editor sees the FAT, with the changes that it has not written yet.
[[nodiscard]] int find_free(fat_editor *editor, u32 first, u32 last);

// First sector of a cluster; 0 when the cluster lies outside the volume.
[[nodiscard]] u32 fat_sector(u32 cluster);

// ---- chain ------------------------------------------------------------------------------------

// Finds a free cluster behind the hint, marks it as the end of a chain and links it behind the last
// cluster of `entry`, or makes it the first; with a null entry it stands alone. `cluster` receives
// its number and must be initialised. The data of the cluster is not touched. Returns 0, -ENOSPC,
// or the error of the FAT; the FAT is then as it was.
[[nodiscard]] int fat_alloc_cluster(oentry *entry, u32 *cluster);

// Allocates `count` clusters for the entry in one go; `clusters` receives their numbers and must be
// zeroed. Each changed FAT sector is written once while the allocations stay in it. Returns 0, or
// the error of the first allocation that failed: the caller is then to undo. `allocated` receives
// how many the entry's size has grown by, those of a sector that could not be written included;
// the entry's start, its image and the hint are those of the last one that reached the medium.
[[nodiscard]] int alloc_clusters(oentry *entry, u32 *clusters, u32 count, u32 *allocated);

// Takes back what alloc_clusters() did: ends the chain at `old_last` again and frees the clusters
// up to the first number that is none. Start and image of the entry stay as they are, and where
// there was no last cluster the end mark goes into FAT entry 0.
void undo_allocation(oentry *entry, u32 old_last, const u32 *clusters, u32 count, u32 allocated);

// Writes zeroes over the sectors of a cluster. Returns 0, -ENOMEM or -EIO.
[[nodiscard]] int clear_cluster(u32 cluster);

// Appends a cleared cluster to the directory, or makes a free-standing one where `entry` is null.
// All open records of the directory learn of it. `cluster` may be null. Returns 0 or an error.
[[nodiscard]] int fat_extend_dir(oentry *entry, u32 *cluster);

// Clusters of the chain that begins at `first`; its last one is stored in `last`. Returns 0 when
// the chain runs into a free entry, -EINVAL when it is broken in another way.
[[nodiscard]] int fat_count_clusters(u32 first, u32 *last);

// Frees the clusters of the chain behind the first `keep`. The record and its image stay as they
// are, and so does the link of the last cluster that is kept. Returns the clusters freed, -EINVAL
// for a broken chain, or the error of a failed write: what was freed before stays free.
[[nodiscard]] int fat_release_clusters(oentry *entry, u32 keep);

// The clusters of the chain in a new array, with 0xFFFFFFFF behind the last, the caller's to free.
// Returns the slots that the allocated size asks for, terminator included; 0 for an entry with
// nothing allocated (no array is made), -EINVAL or -ENOMEM.
[[nodiscard]] int fat_get_chains(oentry *entry, u32 **array);

// ---- name -------------------------------------------------------------------------------------

// Entry types, as entry_type() tells them. Fixed numbers: listings and programs use them.
enum : u32 {
    DENTRY_UNUSED = 0, // and the end of the directory
    DENTRY_DELETED = 1,
    DENTRY_FILE = 2,
    DENTRY_DIR = 3,
    DENTRY_LFN = 4,
    DENTRY_INVALID = 6,
    DENTRY_VOLUME = 8,
};

inline constexpr u32 DOS_NAME_SIZE = SHORT_NAME.size;
inline constexpr u32 DOS_BASE_SIZE = 8;
inline constexpr u32 DOS_CSTRING_SIZE = 13; // base, dot, extension, NUL
inline constexpr u32 LONG_NAME_UNITS = 256; // room for a long name with its terminator
inline constexpr u32 SLOT_UNITS = 13;       // units of one long-name slot

// A name in the three forms that a directory needs.
struct fat_name {
    char *cstring; // as given, the caller's; conversion cuts trailing blanks and dots off it
    u8 *dosName;   // 11 bytes on the heap
    u16 *unicode;  // NUL-terminated long name on the heap, null where none is needed
    u32 ulen;      // units of the long name without its terminator
    u8 lcase;      // case byte of the short entry: 0x08 lower-case base, 0x10 extension
    u32 lossy;     // 1: the short name is no faithful copy
};

// Frees what the record owns and empties it. The string stays the caller's.
void release_name(fat_name *name);

// Fills the record from the string. Returns 0, -EINVAL or -ENOMEM; on failure nothing is left
// allocated.
[[nodiscard]] int get_fatnames(char *cstring, fat_name *name);

// Makes the short name and, where that cannot hold the name and long names are on, the long one.
// The buffers become the caller's. The last three outputs may be null.
[[nodiscard]] int convert_name(char *cstring, u8 **dosName, u16 **unicode, u32 *ulen, u8 *lcase,
                               u32 *lossy);

// Makes an 8.3 name of 11 bytes. `case_out` receives 0xFF for mixed case; for "." and ".." it is
// not written. `case_out` and `lossy` may be null. Returns 0 or -EINVAL (nothing left of the name).
[[nodiscard]] int convert_cstring_to_dosname(char *cstring, u8 *dos, u8 *case_out, u32 *lossy);

// Cuts trailing blanks and dots off in place, but never the first character. `end`, which may be
// null, receives the place of the new terminator. Returns 0 or -EINVAL (null).
int remove_trail_blanks(char *str, char **end);

// The text of a stored short name, at most 13 bytes with its terminator. Returns 0.
int convert_dosname_to_cstring(const u8 *dos, char *out, u8 lcase);

// The checksum that ties long-name slots to their short entry.
[[nodiscard]] u8 dosname_checksum(const u8 *dos);

// Gives the short name the lowest numeric tail that no entry of the directory with the same prefix
// has. Returns 0, -EEXIST (1 to 1023 are taken), -ENOMEM or the error of the walk.
[[nodiscard]] int add_numeric_tail(oentry *dir, u8 *dos);

// Puts "~n" behind the base, or over its end. Returns 0 or -EINVAL (n is over 1024).
[[nodiscard]] int append_tail(u8 *dos, u32 n);

// Refuses forbidden characters and device names. Returns 0 or -EINVAL.
[[nodiscard]] int verify_valid_name(const char *cstring);

// Classifies a raw 32-byte entry; one that is none is reported.
[[nodiscard]] u32 entry_type(const u8 *dentry);

// Long names to and from the encoding of the volume, or ASCII where none is set. `unicode` and
// `cstring` hold 256 units and 256 bytes. Return the units or bytes without the terminator, or a
// negative errno. The forward direction cuts trailing blanks and dots off `cstring`, and a
// byte-order mark from the front of the name. 256 units without a terminator fill all 256 bytes,
// unterminated.
[[nodiscard]] int convert_cstring_to_uname(char *cstring, u16 *unicode);
[[nodiscard]] int convert_uname_to_cstring(const u16 *unicode, char *cstring);

// Room for every long name in every encoding that takes up to three bytes for a unit.
inline constexpr u32 SHOWN_NAME_SIZE = sizeof(fat_entry_info::name);
static_assert(SHOWN_NAME_SIZE == 3 * LONG_NAME_UNITS);

// Stores a long name as a person sees it. False, silently, for an empty one and for one that the
// encoding does not have or the room does not hold: that is shown by its short name.
[[nodiscard]] bool store_shown_name(const u16 *unicode, char (&text)[SHOWN_NAME_SIZE]);

// Closes the converters of the volume.
void close_encoding();

// ---- dentry -----------------------------------------------------------------------------------

// Where an entry lies: its sector, and the byte offset there.
struct dentry_location {
    u32 sector;
    u32 offset;
};

// A place in a cluster chain, kept while a walk over its sectors goes on. Lives inside one call.
struct chain_place {
    u32 first = 0;   // the chain; 0: none yet
    u32 cluster = 0; // where the place is
    u32 links = 0;   // followed from the first cluster to here
    circle_guard guard;
    sector_window fat;
};

// A walk over the entries of one directory: the sector it stands in and its place in the chain.
struct dentry_walk {
    const oentry *dir = nullptr; // bounds the walk; null: the chain alone does
    u32 base_clu = 0;            // 0: the FAT16 root area
    heap_ptr<u8> sector_buf;
    u32 first_index = 0;    // of the entries in the buffer
    u32 loaded_entries = 0; // in the buffer, 0: none yet
    sector_window ahead;
    chain_place place;
    dentry_location location = {};
};

// Begin a walk over an open directory, or over one given by its base cluster. Return false when
// there is no memory for the sector; telling so is the caller's part.
[[nodiscard]] bool begin_walk(dentry_walk *walk, const oentry *dir);
[[nodiscard]] bool begin_walk(dentry_walk *walk, u32 base_clu);

// Points `entry` at entry `index`; its sector is read unless the walk stands in it. Results and
// messages are those of fat_get_dentry() for an open directory, else of get_dentry_with_clu().
[[nodiscard]] int walk_to(dentry_walk *walk, u32 index, u8 **entry);

// Whether the record is the root directory, or a copy of its record. A record that has lost its
// image, since its chain runs into a free entry, is not.
[[nodiscard]] bool is_root(const oentry *entry);

// The same for the root directory in the fixed area of a FAT16 volume.
[[nodiscard]] bool is_fat16_root(const oentry *entry);

// Whether the place of a record's entry is inside a sector: not where the record is older than the
// sector size, because the volume was formatted or mounted anew while it was open.
[[nodiscard]] bool lies_in_one_sector(const oentry &entry);

// Whether a copy of a short entry describes a directory that has not been removed. False for null.
[[nodiscard]] bool is_live_directory(const u8 *dentry);

// Whether a record is the root or a directory that has not been removed.
[[nodiscard]] bool is_open_directory(const oentry *entry);

// Whether a slot may be taken: unused or deleted.
[[nodiscard]] bool is_free_slot(const u8 *entry);

// First cluster of a short entry.
[[nodiscard]] u32 start_cluster(const u8 *dentry);
void set_start_cluster(u8 *dentry, u32 cluster);

// The base cluster of an open directory: 0 for the FAT16 root.
[[nodiscard]] u32 base_cluster(const oentry *dir);

// The sector that holds sector `sector_index` of the directory. Returns 0, -EFAULT behind the end
// of the root area or of the chain, or -EINVAL: no cluster to begin with, or a chain that is broken
// or found to run in a circle on the way.
[[nodiscard]] int get_phy_sector(u32 base_clu, u32 sector_index, u32 *sector);

// The same for a walk that goes on from `place`.
[[nodiscard]] int locate_sector(chain_place *place, u32 base_clu, u32 sector_index, u32 *sector);

[[nodiscard]] int get_phy_sector_by_offset(u32 base_clu, u32 byte_offset, u32 *sector);
[[nodiscard]] int get_entry_sector(u32 base_clu, u32 index, u32 *sector);

// Reads the sector of entry `index` into `sector_buf` (one sector) and points `entry` into it.
// `location` may be null. Returns 0, -EFAULT behind the end, -EINVAL or -EIO.
[[nodiscard]] int get_dentry_with_clu(u32 base_clu, u32 index, u8 **entry, u8 *sector_buf,
                                      dentry_location *location);

// The same for a walk that goes on from `place`.
[[nodiscard]] int get_dentry_from(chain_place *place, u32 base_clu, u32 index, u8 **entry,
                                  u8 *sector_buf, dentry_location *location);

// The same for an open directory; -EFAULT for an index behind its allocated size.
[[nodiscard]] int fat_get_dentry(oentry *dir, u32 index, u8 **entry, u8 *sector_buf,
                                 dentry_location *location);

// Entries of an open directory; 512 for the FAT16 root, whatever its area holds.
[[nodiscard]] u32 dir_entry_count(const oentry *dir);

// Copies the units of one long-name slot up to its terminator, and ends those of a full last slot
// with one: up to 14 units. Returns 0.
int get_lfn_chars(const u8 *slot, u16 *units);

// Index of the short entry that the name finds. `name`, which may be null, is filled and stays
// filled for the caller to release. Returns -ENOENT, -EINVAL, -ENOMEM or the error of the walk.
[[nodiscard]] int fat_find_dentry(oentry *dir, char *cstring, fat_name *name);
[[nodiscard]] int find_dentry_with_clu(u32 base_clu, char *cstring, fat_name *name);

// Looks at one entry of a lookup: gathers a long-name slot into `gathered` (256 units), compares a
// short entry. Returns -EEXIST when the entry matches, else 0.
[[nodiscard]] int compare_entry_name(const u8 *entry, const u8 *dosName, const u16 *unicode,
                                     u16 *gathered, u32 *gathering);

// Copies the units of a slot to the place in `gathered` (256 units) that its ordinal names; what
// lies outside is left out.
void gather_slot(const u8 *slot, u16 *gathered);

// Gathers the long name whose last slot is `*entry`, entry `index` of the directory, standing in
// `sector_buf`, into `units` (256). Returns its slots, 0 for a broken name, or a negative errno.
// `*entry` then points at the entry behind the last slot that was read. A name that fills all 256
// units, as only a damaged medium has it, is not terminated.
[[nodiscard]] int get_long_name(oentry *dir, u32 index, u8 **entry, u8 *sector_buf, u16 *units);

// 0 when the first 256 units, or all up to a common terminator, are equal.
[[nodiscard]] int uname_compare(const u16 *a, const u16 *b);

// Packs a local time: date = years since 1980, month, day; time = hours, minutes, seconds / 2.
void dos_time_date(const tm *t, u16 *date, u16 *time);

// Stamps the present local time as the modification time of a short entry.
void set_entry_time(u8 *entry);

// ---- build ------------------------------------------------------------------------------------

// The kind of entry that only creation knows; files, directories and volume labels are named by
// their entry types.
inline constexpr u32 KIND_SYMLINK = 7;

// The sectors that a run of slots touches, in the order in which they were read.
struct run_sectors {
    static constexpr u32 MAX = 3; // a long name takes 21 slots at most
    heap_ptr<u8> buffers[MAX];
    u32 sectors[MAX] = {};
    u32 used = 0;

    // Makes room for one more sector. Returns 0, -EINVAL (all room is used) or -ENOMEM.
    [[nodiscard]] int reserve();

    // Reads the sector of slot `index` into the room reserved. Returns 0 or a negative errno.
    [[nodiscard]] int load(oentry *dir, u32 index, u8 **entry);

    // Writes all of them back. Returns 0 or a negative errno.
    [[nodiscard]] int write_back();
};

// Whether two slots of a directory lie in one sector.
[[nodiscard]] bool same_sector(u32 index_a, u32 index_b);

// Stores in `index` the first of `count` free slots in a row, deleted ones included; a directory
// without such a run grows. Returns 0, -ENOSPC, -EINVAL, -ENOMEM or the error of the walk.
[[nodiscard]] int fat_find_empty_entries(oentry *dir, u32 count, u32 *index);

// Fills a short entry in memory and stamps it. Returns 0 or -EINVAL (unknown kind).
[[nodiscard]] int set_entry_value(u8 *entry, const u8 *dos, u32 kind, u32 start_clu, u8 lcase);

// Fills an entry with a volume label of 11 bytes. Returns 0.
int set_volume_entry(u8 *entry, const u8 *label);

// Fills one long-name slot with the 13 units from `units` on, or as many as end the name. Returns
// 0.
int set_long_slot(u8 *slot, u8 ordinal, const u16 *units, u8 checksum);

// Writes the long-name slots and the short entry of a name into `count` slots from `first` on; the
// short name of a name with a long form receives its numeric tail before. Returns the index of the
// short entry, or a negative errno: a failed write leaves the sectors before it written.
[[nodiscard]] int build_entry(oentry *dir, u32 first, u32 count, u32 kind, fat_name *name,
                              u32 start_clu);

// Writes "." and ".." into the first slots of a new directory; `parent_clu` is 0 where the parent
// is the root. Returns 0 or a negative errno.
[[nodiscard]] int init_directory(u32 parent_clu, u32 new_clu);

// ---- mount ------------------------------------------------------------------------------------

// Reads the boot sector into `buf` (one sector). Returns its sector, which is 0, or -EIO, or
// -EINVAL where it carries no signature.
[[nodiscard]] int get_pbr_sector(u8 *buf);

// ---- namei ------------------------------------------------------------------------------------

inline constexpr u32 MAX_PATH_LENGTH = 260; // characters

// What fat_get_name() fills, with room for the terminator of a path of the full length. To be
// zeroed by its owner.
using path_buffer = char[MAX_PATH_LENGTH + 1];

// A path taken apart. The pointers lead into the path; a component ends at the next slash.
struct fat_path {
    char **path; // the parent components, on the heap, to be freed by the record's user
    int depth;   // how many
    char *name;  // the final component
};

// Takes `path` apart. Returns 0, -EINVAL, -ENOMEM, or -ENAMETOOLONG for over 1024 components.
[[nodiscard]] int resolve_path(char *path, fat_path *rec, char **name, int *depth);

// Finds the open directory in which the final name of the path is to be looked for. A path with a
// parent component other than "." is followed no further than to that parent's entry: the result is
// then not negative and `dir` is left as it was. Where all parents are ".", `dir` is a record made
// for the caller: free_lookup_result() ends it in every case.
[[nodiscard]] int fat_path_lookup(char *path, oentry **dir, char **name);

// Frees a directory that a lookup made; the root and the current directory stay.
void free_lookup_result(oentry *dir);

// Copies a path without its trailing slashes into 260 bytes; one of 260 characters is not
// terminated by that. Returns its length, -EINVAL (null) or -ENAMETOOLONG.
[[nodiscard]] int fat_get_name(const char *path, char *out);

// ---- create, remove ---------------------------------------------------------------------------

// Creates a name of the given kind in the open directory. Returns the index of its short entry,
// -EEXIST, -EINVAL (null, or the directory has been removed), -ENOSPC where no slots could be
// found, or another negative errno; a cluster allocated before a failure stays allocated.
[[nodiscard]] int do_create(oentry *dir, char *name, u32 kind);

// The same for a path; opens what was created. Returns its id or a negative errno.
[[nodiscard]] int create_internal(char *path, u32 kind);

// Removes entry `index` with its clusters. Returns what remove_entry() does, or a negative errno.
[[nodiscard]] int do_delete(oentry *dir, u32 index);

// Marks entry `index` deleted. Returns the entries marked, 1 or more, or a negative errno.
[[nodiscard]] int remove_entry(oentry *dir, u32 index);

// Whether nothing but unused and deleted entries stands behind "." and "..". Returns 0 or 1 when it
// is so, -ENOTEMPTY when not, or another negative errno.
[[nodiscard]] int is_empty_dir(oentry *dir);

// The name of a short entry: its long name where it has whole slots, else its short one. `size` is
// 256 or more. Returns 0, -ENOENT (no such entry), -EINVAL, -ENOMEM or the error of the walk.
[[nodiscard]] int get_name_of_entry(u32 base_clu, u32 index, char *out, u32 size);

// ---- oentry -----------------------------------------------------------------------------------

inline constexpr u32 MAX_ENTRIES = std::size(oentry_table);

// The record of an id, null for an empty slot and for what is no id.
[[nodiscard]] oentry *entry_of(int id);

// Stores the record in the lowest free slot, which then owns it. Returns its id or -EMFILE.
[[nodiscard]] int register_oentry(oentry *entry);

// Fills a zeroed record from the image of a directory entry that lies at byte `offset` of `sector`,
// or as the root directory where the image is null. An image of ".." that leads to the root gives a
// copy of the root's record; an entry whose chain runs into a free entry gives a record without an
// image, with result 0. Returns 0, -ENOMEM or the error of the chain.
[[nodiscard]] int fat_set_oentry(const u8 *dentry_image, u32 sector, u32 offset, oentry *entry);

// Opens entry `index` of the directory. Returns its id or a negative errno.
[[nodiscard]] int fat_entry_open(oentry *parent, u32 index);

// Opens the root directory as id 0, or anew in place, and makes it current. Returns 0 or an error.
[[nodiscard]] int open_root_directory();

// The lowest clear bit of a map of `bits` bits, or -1.
[[nodiscard]] int find_free_slot(const u32 *map, u32 bits);
void mark_slot(u32 *map, u32 id);
void unmark_slot(u32 *map, u32 id);

// Drops one reference of an id; the last one frees the record and its slot.
void put_oentry(int id);

// Frees an open entry and its copy of the directory entry; null is ignored. Its slot in the table
// is the caller's affair. Where it was the current directory, the root becomes current.
void free_oentry(oentry *entry);

// ---- file -------------------------------------------------------------------------------------

// Stores the record of an id that names an open file. Returns 0, -EINVAL (no such id; null is
// stored) or -EISDIR.
[[nodiscard]] int get_file_entry(int id, oentry **entry);

// Appends to the file and writes its directory entry. Returns `count`, or a negative errno: -EFBIG
// before anything changed; -EIO of the directory entry leaves data and clusters in place.
[[nodiscard]] int write_file_internal(oentry *entry, const void *buffer, u32 count);

// Writes at byte `position`, which must lie within the clusters allocated or at their end, and
// moves it on. All clusters are allocated first; a failure frees them again. Returns `count` or a
// negative errno.
[[nodiscard]] int do_write_file(oentry *entry, const void *buffer, u32 count, u32 *position);

// Reads at the record's position up to the end of the file and moves the position on. Returns the
// bytes read, at most INT_MAX, or a negative errno.
[[nodiscard]] int read_file_internal(oentry *entry, void *buffer, u32 count);

// Reads exactly `count` bytes at `position` and moves it on. Returns `count` or a negative errno.
[[nodiscard]] int do_read_file(oentry *entry, void *buffer, u32 count, u64 *position);

// ---- metadata ---------------------------------------------------------------------------------

inline constexpr u32 MAX_PATHNAME = 4096; // bytes of an absolute path with its terminator

// Searches below `dir` for the file, link or directory whose chain contains the cluster. On success
// "/" and a name for each level are appended to `path` (4096 bytes), `parent`, which may be null,
// receives the base cluster of its directory, and its index there is returned; else -ENOENT,
// -ENAMETOOLONG, -EINVAL for a directory tree that holds more directories than the volume has
// clusters, or the error of the walk.
[[nodiscard]] int find_entry_with_clu(oentry *dir, u32 cluster, u32 *parent, char *path);

// ---- zuq --------------------------------------------------------------------------------------

// The first cluster of the chain from `start` on for which the predicate holds with `key`; -ENOENT
// at the end of the chain, or the error of the FAT. `stop` ends a search that begins at the end
// mark.
[[nodiscard]] int find_cluster(u32 start, u32 stop, u32 key,
                               bool (*predicate)(u32 cluster, u32 key));

// Finds the next file of the directory from where its record's walk stands. Returns 1; 0 or
// -ENOENT at the end; or another negative value. `entry` (32 bytes) receives the image of the
// file's entry or, where a long name was met on the way, of the first slot of the first such name;
// `location` is always that of the file's short entry. `name->cstring`, which may be null, has 256
// bytes.
[[nodiscard]] int do_readdir_fast(oentry *dir, u8 *entry, fat_name *name,
                                  dentry_location *location);

// Gathers the long name whose last slot is `*current`, entry `index` counted from the start of
// `cluster` (0: the FAT16 root area), into `uname` (256 units). Returns its slots, 0 for a broken
// name, or the error of the walk. `*current` is moved into `sector_buf` (one sector). `uname` is to
// be zeroed: a name that fills its slots is not terminated.
[[nodiscard]] int get_long_name_fast(u32 cluster, u32 index, u8 **current, u8 *sector_buf,
                                     u16 *uname);

// The cluster `n` links behind `cluster`. Returns 1, 0 when the chain ends before, -EINVAL for a
// number that is none to begin with, -1 for a broken chain.
[[nodiscard]] int get_next_cluster(u32 cluster, u32 n, u32 *out);

// Writes the value as 8 letters from "@" (0) to "O" (15), the highest four bits first.
void encode_fast_word(char *out, u32 value);

// ---- list -------------------------------------------------------------------------------------

// One line of a directory listing.
struct dir_item {
    u8 type;  // of the short entry
    u32 size; // bytes; of a directory those of its clusters
    char name[256];
};

// Finds the next file, directory or link of the directory from `*index` on and moves that behind
// it. `sector_buf` (one sector) then holds its short entry, at `*entry`; `location` is that of the
// first entry read for it and may be null. Returns 0 or more, -ENOENT at the end, or the error of
// the walk.
[[nodiscard]] int do_readdir(oentry *dir, u32 *index, u8 **entry, dir_item *item, u8 *sector_buf,
                             dentry_location *location);

// Print one entry: a line and, in mode 2, its fields; null stands for standard output. Returns 0,
// or -ENOENT for an unused one.
int print_slot(u32 index, int mode, const u8 *entry, FILE *stream);
void print_short_entry(FILE *stream, const u8 *entry);
void print_long_slot(FILE *stream, const u8 *entry);

// Prints up to `count` units in hexadecimal, or as many as come before a 0, and a newline.
void print_units(FILE *stream, const u16 *units, u32 count);

// Prints the 11 bytes of a short name as they are, and a newline.
void print_raw_name(FILE *stream, const u8 *entry);

void print_item(FILE *stream, const dir_item *item);

// ---- debug ------------------------------------------------------------------------------------

void print_name_record(int level, const fat_name *name);
void print_path_record(int level, const char *path, char **components, const char *name, int depth);

} // namespace fat
