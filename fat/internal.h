// Declarations that the sources of the library share. Outside fat/ only the tests include this.
//
// The library is a face of the engine (core/): it has the one open volume, ids, texts and the rules
// of its own. The engine returns faults; fatent and dentry have the tables that turn them into
// messages and error numbers.
//
// Layers, from the lowest up:
//   diag                            messages
//   volume                          the open target, its sectors, what is known during a call
//   param, geometry, bootsector, format
//                                   formatting
//   fatent, chain                   FAT entries and links, cluster chains
//   dentry, name, encoding, lookup, build
//                                   directory entries and their names: reading, finding, writing
//   namei                           paths
//   oentry                          open entries
//   mount                           mounting a formatted volume
//   create, remove, file            names, and the data of files
//   list, debug                     listings and printers
//   entries, metadata, zuq, fastpath, import, dump
//                                   operations on open entries and on whole volumes
// Each layer calls those above it in this list. Intentional exceptions, which call in the other
// direction: releasing a volume frees its open entries (oentry) and converters (encoding), and
// compacting an image file reads its FAT (fatent); a new root directory gets its label entry
// (build); a directory chain that grows updates the open entries of that directory (oentry); a path
// lookup creates a record for "./name" (oentry).

#pragma once

#include "core/allocator.h"
#include "core/chain.h"
#include "core/directory_cache.h"
#include "core/fast_path.h"
#include "core/geometry.h"
#include "core/long_name.h"
#include "core/record.h"
#include "core/resources.h"
#include "core/slots.h"
#include "core/table.h"
#include "fat/diag.h"
#include "fat/fat.h"

#include <ctime>
#include <iterator>

#include <sys/types.h>

// An open file or directory. Global because the public header names it.
struct oentry {
    core::u32 start;         // first cluster, 0 without clusters; FAT16 root: its first sector
    core::u32 last;          // last cluster, 0 without clusters; FAT16 root: its last sector
    core::u32 allocated;     // bytes of the whole chain
    core::u64 pos;           // byte position for reads
    core::u32 ref_count;     // references to the table slot
    core::u32 dentry_sector; // sector of the directory entry, 0 for the root
    core::u32 dentry_offset; // byte offset in that sector
    core::u8 *dentry;        // copy of the 32-byte entry, on the heap; null for the root
    core::u32 parent_clus;   // first cluster of the parent, 0: the FAT16 root
    char name[256];          // last component of the path it was opened by
    core::u32 readdir_clus;  // cluster that holds entry readdir_pos, for the fast directory walk
    core::u32 readdir_pos;   // index of the next entry of the fast directory walk
    // Position of the last data transfer in the chain, if the cache is on.
    core::u32 kept_first; // first cluster of that chain
    core::u32 kept_cluster;
    core::u32 kept_links;   // from the first cluster to that one
    core::u32 kept_epoch;   // chain_epoch() of that position
    core::u32 dentry_index; // slot of the entry in its directory when it was opened
};

namespace fat {

using namespace core::basis;
using core::is_live_directory;
using core::set_start_cluster;
using core::start_cluster;

// ---- public calls -----------------------------------------------------------------------------

// Whether no volume is open. If so, prints a diagnostic in the name of `function`, a public call.
[[nodiscard]] bool no_volume(const char *function);

// The same for calls that need the geometry, which is known after formatting or mounting.
[[nodiscard]] bool not_mounted(const char *function);

// Stores the magnitude of a negative result in errno. Returns the result.
int with_errno(int result);

// The stream of a listing: null selects standard output.
[[nodiscard]] inline FILE *stream_or_stdout(FILE *stream) {
    return stream != nullptr ? stream : stdout;
}

// A text for "%s", which does not accept null.
[[nodiscard]] constexpr const char *text_or_null(const char *text) {
    return text != nullptr ? text : "(null)";
}

// ---- volume -----------------------------------------------------------------------------------

// Unit of sector transfers while the sector size of the volume is unknown, in bytes.
inline constexpr u32 UNKNOWN_SECTOR_SIZE = 4096;

// Current unit of sector transfers, in bytes: the size of a buffer for one sector.
[[nodiscard]] u32 transfer_unit();

// Permission bits of image files that the library creates.
inline constexpr mode_t IMAGE_MODE = 0660;

// Opens `path`, sizes it and stores the new volume record in `sv`. Results as fat_open_volume().
[[nodiscard]] int fat_init_volume(const char *path, u8 long_name);

// Frees all open entries and the volume record, as fat_close_volume().
[[nodiscard]] int fat_release_volume(int compact);

// Stores the size in bytes of the open regular file or block device in `size`. Returns 0, -EINVAL
// (another file type) or -EACCES (the device does not report its size).
[[nodiscard]] int check_vol_size(int fd, u64 *size);

// Returns 1 when one byte can be read at byte `offset`, else 0.
[[nodiscard]] int valid_offset(int fd, u64 offset);

// Size in bytes: the end by seeking or, where that is 0, by probing offsets.
[[nodiscard]] u64 get_device_size(int fd);

// Sector transfers on the descriptor of `sv`: one seek and one system call; a short transfer is not
// retried. Return the number of whole sectors transferred, -EINVAL or -EIO.
[[nodiscard]] int file_read_sectors(void *buf, u64 sector, u32 count);
[[nodiscard]] int file_write_sectors(void *buf, u64 sector, u32 count);

// What the library knows of the medium during one public call, which every public call that
// transfers sectors marks by an object of this type: the sectors transferred last. The outermost
// call begins without any, unless fat_set_cache() is on and the volume and its transfers are those
// of the call before.
class public_call {
public:
    public_call();
    public_call(const public_call &) = delete;
    public_call &operator=(const public_call &) = delete;
    ~public_call();
};

// Drops what is known of the medium: it may have changed, or be another one.
void forget_medium();

// Positions in chains that a program lets the library store from call to call are valid while this
// number does not change. Appending to a chain leaves them valid.
[[nodiscard]] u32 chain_epoch();
void forget_positions();
[[nodiscard]] bool keeps_positions();

// The directory used last, with what a program lets the library store of it from call to call. From
// now on this is the directory that begins with `base_clu`. Null if nothing of it is stored.
[[nodiscard]] core::directory_cache *cached_directory(u32 base_clu);

// Lets a walk that begins with slot `index`, or with a sector, begin near it, if it walks over that
// directory.
void continue_walk(core::slot_walk *slots, u32 base_clu, u32 index);
void continue_walk(core::chain_cursor *cursor, u32 base_clu, u32 sector_index);

// Reports that the FAT entry of a cluster is about to change.
void link_changes(u32 cluster);

// Transfers of the library: read_sectors and write_sectors, except for sectors that are known.
[[nodiscard]] int read_medium(void *buf, u64 sector, u32 count);
[[nodiscard]] int write_medium(const void *buf, u64 sector, u32 count);

// The open volume as the engine sees it, with its transfers by read_sectors and write_sectors; all
// areas are 0 if no volume is open. A copy: valid until the volume record changes.
[[nodiscard]] core::volume here();

// The same; failed reads print nothing.
[[nodiscard]] core::volume here_silently();

// ---- format -----------------------------------------------------------------------------------

// Bytes of one cluster of the volume.
[[nodiscard]] inline u32 cluster_bytes() {
    return sv->sec_per_clus * sv->sector_size;
}

// Whether the request is safe for the arithmetic of formatting: known FAT width, sector and cluster
// sizes that are powers of two in range, counts that fit their fields on the medium.
[[nodiscard]] bool is_valid_request(const fat_format_param *param);

// Prints, in the name of `function`, that the request cannot be formatted.
void refuse_request(const char *function, const fat_format_param *param);

// Smallest multiple of `a` that is at least x, and at least a: 0 becomes a.
[[nodiscard]] u32 round_up_to(u32 x, u32 a);

// Chooses FAT width, FAT size, cluster count and the reserved and root areas for a volume of
// `total_sectors` sectors. On success stores the choices in `fat_size`, `nr_rsvd_sec` and
// `root_entries` of the request. Returns 0, -EINVAL after printing why the volume cannot be
// formatted so, or -1.
[[nodiscard]] int calc_fat_sectors(fat_format_param *param, u32 total_sectors, u32 *fat_sectors,
                                   u32 *num_clusters);

// The same with the layout, and the areas of the volume.
[[nodiscard]] int lay_out_volume(fat_format_param *param, u32 total_sectors,
                                 core::volume_layout *layout, core::areas *areas);

// Stores the areas in the volume record.
void set_areas(const core::areas &at);

// Fills the zeroed boot sector `pbr` (one sector) and the geometry of `sv`.
[[nodiscard]] int create_pbr(u8 *pbr, fat_format_param *param);

// Fills the zeroed FSInfo sector. Returns 0 or -EINVAL (null).
[[nodiscard]] int set_fsinfo(u8 *sector);

// Builds the four tables. The caller owns the buffers and frees them; `fsinfo` is null for FAT16.
// On failure nothing is stored: -EINVAL or -ENOMEM.
[[nodiscard]] int make_tables(fat_format_param *param, u8 **pbr, u8 **fsinfo, u8 **fat, u8 **rdir);

// Writes the tables; see fat_format(). Does not take ownership of the buffers.
[[nodiscard]] int write_tables_vol(fat_format_param *param, u8 *pbr, u8 *rdir, u8 *fat, u8 *fsinfo);

// Creates one FAT copy, or a root directory, for the volume whose boot sector has its BIOS
// parameter block at `bpb`. The caller owns the buffer. Return 0, -EINVAL or -ENOMEM.
[[nodiscard]] int create_fat(const u8 *bpb, u8 **fat);
[[nodiscard]] int create_root_dir(const u8 *bpb, u8 **rdir);

// Stores `value` in entry `index` of a FAT in memory; the reserved bits of a FAT32 entry do not
// change. Returns 0 or -EINVAL (`fat_type` is neither 16 nor 32).
[[nodiscard]] int set_fat_entry(u32 fat_type, void *table, int index, u32 value);

// ---- fatent -----------------------------------------------------------------------------------

[[nodiscard]] bool is_data_cluster(u32 cluster);

// Whether a FAT value ends a chain.
[[nodiscard]] bool is_end_of_chain(u32 value);

// Report a fault of the FAT in the name of the operation on entry `index` that failed: a read or a
// link followed, or a change. Return its negative errno, and 0 for no fault. CYCLE and
// FREE_CLUSTER, which are not faults of one entry, give -EINVAL without a report.
int report_link(core::fault why, u32 index);
int report_change(core::fault why);

// Stores the value of a FAT entry, without its reserved bits, in `value`. Does not check the
// cluster number against the volume. Returns 0, -EINVAL, -ENOMEM or -EIO.
[[nodiscard]] int fat_read_entry(u32 cluster, u32 *value);

// Changes one entry of the first FAT: reads its sector, changes it and writes it back. The reserved
// bits of a FAT32 entry do not change. Returns 0, -EINVAL, -ENOMEM or -EIO; the FAT is unchanged
// unless the write itself failed.
[[nodiscard]] int fat_write_entry(u32 cluster, u32 value);

// Steps of an operation on one view of the FAT, with the results and messages of
// fat_write_entry() and fat_read_clus().
[[nodiscard]] int change(core::table *fat, u32 index, u32 value);
[[nodiscard]] int flush(core::table *fat);
[[nodiscard]] int follow(core::table *fat, u32 cluster);

// Follows one link. Returns the next cluster, 0 for a free entry, the end-of-chain value, or a
// negative errno: the number is not a data cluster, the entry is not a link, or the read failed.
[[nodiscard]] int fat_read_clus(u32 cluster);

// The lowest free cluster from `first` to `last`, both included; -ENOENT if there is no free one,
// or the error of the first entry that cannot be read or is not a link.
[[nodiscard]] int fat_free_clus(u32 first, u32 last);

// The result of such a search, after a report if it was ended by the entry `stopped_at`.
[[nodiscard]] int report_search(const core::table &fat, const core::result<u32> &found,
                                u32 stopped_at);

// First sector of a cluster; 0 for a cluster outside the volume.
[[nodiscard]] u32 fat_sector(u32 cluster);

// ---- chain ------------------------------------------------------------------------------------

// Finds a free cluster after the hint, marks it as the end of a chain and links it to the last
// cluster of `entry`, or makes it the first one; with a null entry it starts a chain of its own.
// `cluster` receives its number; the caller initialises it. Does not write the data of the cluster.
// Returns 0, -ENOSPC, or the error of the FAT, which is then unchanged.
[[nodiscard]] int fat_alloc_cluster(oentry *entry, u32 *cluster);

// Allocates `count` clusters for the entry at once; `clusters` receives their numbers and is zeroed
// by the caller. Writes each changed FAT sector once as long as the allocations stay in it. Returns
// 0, or the error of the first allocation that failed: the caller then calls undo_allocation().
// `allocated` receives the number of clusters added to the size of the entry, including those of a
// sector that could not be written; the start of the entry, its dentry copy and the hint are those
// of the last allocation that reached the medium.
[[nodiscard]] int alloc_clusters(oentry *entry, u32 *clusters, u32 count, u32 *allocated);

// Undoes alloc_clusters(): ends the chain at `old_last` again and frees the clusters up to the
// first number that is not a data cluster. Does not change start and dentry copy of the entry. With
// no previous last cluster the end mark goes to FAT entry 0.
void undo_allocation(oentry *entry, u32 old_last, const u32 *clusters, u32 count, u32 allocated);

// Writes zeros to all sectors of a cluster. Returns 0, -ENOMEM or -EIO.
[[nodiscard]] int clear_cluster(u32 cluster);

// Appends a cleared cluster to the directory, or allocates an unlinked one if `entry` is null.
// Updates all open records of the directory. `cluster` may be null. Returns 0 or a negative errno.
[[nodiscard]] int fat_extend_dir(oentry *entry, u32 *cluster);

// Number of clusters of the chain that begins at `first`; stores its last cluster in `last`.
// Returns 0 for a chain that leads to a free entry, -EINVAL for one that is broken in another way.
[[nodiscard]] int fat_count_clusters(u32 first, u32 *last);

// Frees the clusters of the chain after the first `keep`. Does not change the record, its dentry
// copy, nor the link of the last remaining cluster. Returns the number of clusters freed, -EINVAL
// for a broken chain, or the error of a failed write; clusters freed before a failure stay free.
[[nodiscard]] int fat_release_clusters(oentry *entry, u32 keep);

// Stores the clusters of the chain, followed by 0xFFFFFFFF, in a new array that the caller frees.
// Returns the number of array elements that the allocated size requires, terminator included; 0 for
// an entry without clusters (no array is created), -EINVAL or -ENOMEM.
[[nodiscard]] int fat_get_chains(oentry *entry, u32 **array);

// ---- name -------------------------------------------------------------------------------------

// Results of entry_type(). Fixed numbers: listings and programs use them.
enum : u32 {
    DENTRY_UNUSED = 0, // also the end of the directory
    DENTRY_DELETED = 1,
    DENTRY_FILE = 2,
    DENTRY_DIR = 3,
    DENTRY_LFN = 4,
    DENTRY_INVALID = 6,
    DENTRY_VOLUME = 8,
};

inline constexpr u32 DOS_NAME_SIZE = SHORT_NAME.size;
inline constexpr u32 DOS_BASE_SIZE = core::SHORT_BASE_SIZE;
inline constexpr u32 DOS_CSTRING_SIZE = 13;                      // base, dot, extension, NUL
inline constexpr u32 LONG_NAME_UNITS = core::MAX_NAME_UNITS + 1; // with the terminator

// A name in the three forms that a directory needs.
struct fat_name {
    char *cstring; // owned by the caller; conversion removes its trailing spaces and dots
    u8 *dosName;   // 11 bytes on the heap
    u16 *unicode;  // NUL-terminated long name on the heap, null if the short name suffices
    u32 ulen;      // units of the long name without its terminator
    u8 lcase;      // case byte of the short entry: 0x08 lower-case base, 0x10 extension
    u32 lossy;     // 1: the short name differs from the name given
};

// Frees the buffers of the record and clears it. Does not free the string.
void release_name(fat_name *name);

// Fills the record from the string. Returns 0, -EINVAL or -ENOMEM; on failure no buffer is
// allocated.
[[nodiscard]] int get_fatnames(char *cstring, fat_name *name);

// Creates the short name and, if it cannot represent the name and long names are on, the long one.
// The caller frees the buffers. The last three outputs may be null.
[[nodiscard]] int convert_name(char *cstring, u8 **dosName, u16 **unicode, u32 *ulen, u8 *lcase,
                               u32 *lossy);

// Creates an 8.3 name of 11 bytes. `case_out` receives 0xFF for mixed case; it is not written for
// "." and "..". `case_out` and `lossy` may be null. Returns 0 or -EINVAL (no character of the name
// remains).
[[nodiscard]] int convert_cstring_to_dosname(char *cstring, u8 *dos, u8 *case_out, u32 *lossy);

// Removes trailing spaces and dots in place, except the first character. `end`, which may be null,
// receives the position of the new terminator. Returns 0 or -EINVAL (null).
int remove_trail_blanks(char *str, char **end);

// Converts a stored short name to text of at most 13 bytes, terminator included. Returns 0.
int convert_dosname_to_cstring(const u8 *dos, char *out, u8 lcase);

// Checksum of a short name that its long-name slots carry.
[[nodiscard]] u8 dosname_checksum(const u8 *dos);

// Appends to the short name the lowest numeric tail that no entry of the directory with the same
// prefix has. Returns 0, -EEXIST (1 to 1023 are in use), -ENOMEM or the error of the walk.
[[nodiscard]] int add_numeric_tail(oentry *dir, u8 *dos);

// Appends the lowest tail that is not in use. Returns 0 or -EEXIST.
[[nodiscard]] int append_lowest_tail(u8 *dos, const core::tail_set &tails);

// Writes "~n" after the base, or over its end. Returns 0 or -EINVAL (n is over 1024).
[[nodiscard]] int append_tail(u8 *dos, u32 n);

// Rejects forbidden characters and device names. Returns 0 or -EINVAL.
[[nodiscard]] int verify_valid_name(const char *cstring);

// Classifies a raw 32-byte entry; prints a diagnostic for an invalid one.
[[nodiscard]] u32 entry_type(const u8 *dentry);

// Convert a long name from and to the encoding of the volume, or ASCII if it has no encoding.
// `unicode` and `cstring` have room for 256 units and 256 bytes. Return the number of units or
// bytes without the terminator, or a negative errno. convert_cstring_to_uname() removes trailing
// spaces and dots from `cstring`, and a leading byte-order mark from the name. 256 units without a
// terminator fill all 256 bytes, which are then not terminated either.
[[nodiscard]] int convert_cstring_to_uname(char *cstring, u16 *unicode);
[[nodiscard]] int convert_uname_to_cstring(const u16 *unicode, char *cstring);

// Room for every long name in every encoding of at most three bytes a unit.
inline constexpr u32 DISPLAY_NAME_SIZE = sizeof(fat_entry_info::name);
static_assert(DISPLAY_NAME_SIZE == 3 * LONG_NAME_UNITS);

// Stores a long name as text for display. False, without a diagnostic, for an empty name and for
// one that is not representable in the encoding or too long for `text`: the caller then shows the
// short name.
[[nodiscard]] bool store_display_name(const u16 *unicode, char (&text)[DISPLAY_NAME_SIZE]);

// Closes the converters of the volume.
void close_encoding();

// ---- dentry -----------------------------------------------------------------------------------

// Location of an entry: its sector, and the byte offset in that sector.
using dentry_location = core::slot_place;

// A walk over the entries of one directory, with its own view of the FAT.
struct dentry_walk {
    u32 base_clu; // 0: the FAT16 root area
    core::table fat;
    core::slot_walk slots;

    // Over an open directory, or over the directory at a base cluster, which is bounded by its
    // chain only. The owner calls reserve() of the slots, and reports if that fails.
    explicit dentry_walk(const oentry *dir);
    explicit dentry_walk(u32 base);
    dentry_walk(const dentry_walk &) = delete;
    dentry_walk &operator=(const dentry_walk &) = delete;
    ~dentry_walk() = default;
};

// Reports why a walk did not reach entry `index`. Returns a negative errno.
int report_walk(const dentry_walk &walk, core::fault why, u32 index);

// Sets `entry` to entry `index`; reads its sector unless it is in the buffer. Results and messages
// are those of fat_get_dentry() for an open directory, else of get_dentry_with_clu().
[[nodiscard]] int walk_to(dentry_walk *walk, u32 index, u8 **entry);

// Whether the record is the root directory or a copy of its record. False for a record that lost
// its dentry copy because its chain leads to a free entry.
[[nodiscard]] bool is_root(const oentry *entry);

// The same for the root directory in the fixed area of a FAT16 volume.
[[nodiscard]] bool is_fat16_root(const oentry *entry);

// Whether the location of the entry of a record is within a sector. False for a record older than
// the sector size, if the volume was formatted or mounted again while the record was open.
[[nodiscard]] bool lies_in_one_sector(const oentry &entry);

// Whether a record is the root directory or a directory that is not removed.
[[nodiscard]] bool is_open_directory(const oentry *entry);

// Whether a new entry may use a slot: unused or deleted. Classifies it by entry_type().
[[nodiscard]] bool is_available(const u8 *entry);

// Base cluster of an open directory: 0 for the FAT16 root.
[[nodiscard]] u32 base_cluster(const oentry *dir);

// Stores the volume sector of sector `sector_index` of the directory. Returns 0, -EFAULT past the
// end of the root area or of the chain, or -EINVAL: invalid first cluster, or a broken chain or
// cycle before the sector.
[[nodiscard]] int get_phy_sector(u32 base_clu, u32 sector_index, u32 *sector);

// The same for a walk that continues from `cursor`.
[[nodiscard]] int locate_sector(core::table *fat, core::chain_cursor *cursor, u32 base_clu,
                                u32 sector_index, u32 *sector);

// Reports, in the name of get_phy_sector(), why a sector of the space from `base_clu` on was not
// found. Returns its negative errno.
int report_place(core::fault why, u32 base_clu, const core::chain_cursor &cursor);

[[nodiscard]] int get_phy_sector_by_offset(u32 base_clu, u32 byte_offset, u32 *sector);
[[nodiscard]] int get_entry_sector(u32 base_clu, u32 index, u32 *sector);

// Reads the sector of entry `index` into `sector_buf` (one sector) and sets `entry` to a position
// in it. `location` may be null. Returns 0, -EFAULT past the end, -EINVAL or -EIO.
[[nodiscard]] int get_dentry_with_clu(u32 base_clu, u32 index, u8 **entry, u8 *sector_buf,
                                      dentry_location *location);

// The same for a walk that continues from `cursor`.
[[nodiscard]] int get_dentry_from(core::table *fat, core::chain_cursor *cursor, u32 base_clu,
                                  u32 index, u8 **entry, u8 *sector_buf, dentry_location *location);

// The same for an open directory; -EFAULT for an index past its allocated size.
[[nodiscard]] int fat_get_dentry(oentry *dir, u32 index, u8 **entry, u8 *sector_buf,
                                 dentry_location *location);

// Number of entries of an open directory; 512 for the FAT16 root, regardless of the size of its
// area.
[[nodiscard]] u32 dir_entry_count(const oentry *dir);

// Copies the units of one long-name slot up to its terminator, and terminates those of a full last
// slot: up to 14 units. Returns 0.
int get_lfn_chars(const u8 *slot, u16 *units);

// Index of the short entry that matches the name. `name`, which may be null, is filled for the
// caller, who releases it. Returns -ENOENT, -EINVAL, -ENOMEM or the error of the walk.
[[nodiscard]] int fat_find_dentry(oentry *dir, char *cstring, fat_name *name);
[[nodiscard]] int find_dentry_with_clu(u32 base_clu, char *cstring, fat_name *name);

// Number of slots of a name: its long-name slots and the short entry.
[[nodiscard]] u32 slots_of(const fat_name &name);

// What the lookup of a new name saw of its directory.
struct creation_survey {
    core::slot_survey slots = {0, core::free_span(0), nullptr};

    // Whether walks of their own for the free slots and for the tail would see the same and print
    // nothing.
    bool is_usable = false;
};

// fat_find_dentry() for a name that is to be created.
[[nodiscard]] int find_for_creation(oentry *dir, char *cstring, fat_name *name,
                                    creation_survey *survey);

// Processes one entry of a lookup: collects a long-name slot in `gathered` (256 units), or compares
// a short entry. Returns -EEXIST if the entry matches, else 0.
[[nodiscard]] int compare_entry_name(const u8 *entry, const u8 *dosName, const u16 *unicode,
                                     u16 *gathered, u32 *gathering);

// Collects in `units` (256) the long name whose last slot is `*entry`, entry `index` of the
// directory, a position in `sector_buf`. Returns the number of its slots, 0 for a broken name, or a
// negative errno. `*entry` is then the entry after the last slot read. A name of all 256 units,
// which only a damaged medium has, is not terminated.
[[nodiscard]] int get_long_name(oentry *dir, u32 index, u8 **entry, u8 *sector_buf, u16 *units);

// Collects the long name whose last slot is `*entry`. `advance()` moves it to the next
// entry, and returns 0 or a negative errno; `accepts(entry, checksum, is_short)` decides whether
// the entry continues the name or, as its short entry, ends it. Results as get_long_name().
template <typename Advance, typename Accepts>
int assemble_name(u8 **entry, core::slot_units which, u16 *units, Advance advance,
                  Accepts accepts) {
    const u32 ordinal = load(*entry, SLOT_ORDINAL);
    if (ordinal <= SLOT_LAST) {
        return 0; // not the first slot of a name
    }
    const u32 slot_count = ordinal - SLOT_LAST;
    const u8 checksum = static_cast<u8>(load(*entry, SLOT_CHECKSUM));
    for (u32 slot = slot_count; slot >= 1; slot--) {
        core::copy_units(*entry, s64{slot - 1} * core::UNITS_PER_SLOT, which, units,
                         LONG_NAME_UNITS);
        const int result = advance();
        if (result < 0) {
            return result;
        }
        if (!accepts(*entry, checksum, slot == 1)) {
            return 0;
        }
    }
    return static_cast<int>(slot_count);
}

// Returns 0 if the first 256 units, or all up to a common terminator, are equal.
[[nodiscard]] int uname_compare(const u16 *a, const u16 *b);

// Packs a local time: date = years since 1980, month, day; time = hours, minutes, seconds / 2.
void dos_time_date(const tm *t, u16 *date, u16 *time);

// Sets the modification time of a short entry to the present local time.
void set_entry_time(u8 *entry);

// ---- build ------------------------------------------------------------------------------------

// Kind of entry for creation only; files, directories and volume labels have the numbers of their
// entry types.
inline constexpr u32 KIND_SYMLINK = 7;

// The sectors that contain a span of slots, in the order in which they were read.
struct span_sectors {
    static constexpr u32 MAX = 3; // a long name takes 21 slots at most
    heap_ptr<u8> buffers[MAX];
    u32 sectors[MAX] = {};
    u32 used = 0;

    // Allocates a buffer for one more sector. Returns 0, -EINVAL (already MAX sectors) or -ENOMEM.
    [[nodiscard]] int reserve();

    // Reads the sector of slot `index` into the buffer reserved last. Returns 0 or a negative
    // errno.
    [[nodiscard]] int load(oentry *dir, u32 index, u8 **entry);

    // Writes all sectors to the medium. Returns 0 or a negative errno.
    [[nodiscard]] int write_back();
};

// Whether two slots of a directory are in one sector.
[[nodiscard]] bool same_sector(u32 index_a, u32 index_b);

// Stores in `index` the first of `count` consecutive free slots, deleted ones included; extends a
// directory that has no such span. Returns 0, -ENOSPC, -EINVAL, -ENOMEM or the error of the walk.
[[nodiscard]] int fat_find_empty_entries(oentry *dir, u32 count, u32 *index);

// The same after a survey, which walks over the slots that the survey did not visit.
[[nodiscard]] int find_empty_entries_after(oentry *dir, u32 count, const creation_survey &survey,
                                           u32 *index);

// Fills a short entry in memory and sets its time. Returns 0 or -EINVAL (unknown kind).
[[nodiscard]] int set_entry_value(u8 *entry, const u8 *dos, u32 kind, u32 start_clu, u8 lcase);

// Fills an entry with a volume label of 11 bytes. Returns 0.
int set_volume_entry(u8 *entry, const u8 *label);

// Fills one long-name slot with 13 units from `units` on, or up to the terminator of the name.
// Returns 0.
int set_long_slot(u8 *slot, u8 ordinal, const u16 *units, u8 checksum);

// Writes the long-name slots and the short entry of a name to `count` slots from `first` on, after
// adding a numeric tail to the short name of a name with a long form. Returns the index of the
// short entry, or a negative errno; sectors written before a failed write stay written.
[[nodiscard]] int build_entry(oentry *dir, u32 first, u32 count, u32 kind, fat_name *name,
                              u32 start_clu);

// The same with the tails that a survey has found.
[[nodiscard]] int build_entry_after(oentry *dir, u32 first, u32 count, u32 kind, fat_name *name,
                                    u32 start_clu, const creation_survey &survey);

// Writes "." and ".." to the first slots of a new directory; `parent_clu` is 0 if the parent is the
// root. Returns 0 or a negative errno.
[[nodiscard]] int init_directory(u32 parent_clu, u32 new_clu);

// ---- mount ------------------------------------------------------------------------------------

// Reads the boot sector into `buf` (one sector). Returns its sector number, which is 0, -EIO, or
// -EINVAL if it has no signature.
[[nodiscard]] int get_pbr_sector(u8 *buf);

// ---- namei ------------------------------------------------------------------------------------

inline constexpr u32 MAX_PATH_LENGTH = 260; // characters

// Output buffer of fat_get_name(), with room for the terminator of a path of maximum length. The
// owner zeroes it.
using path_buffer = char[MAX_PATH_LENGTH + 1];

// A path split into components. The pointers refer to the path; a component ends at the next slash.
struct fat_path {
    char **path; // parent components; the array is on the heap and freed by the caller
    int depth;   // number of parent components
    char *name;  // the final component
};

// Splits `path` into components. Returns 0, -EINVAL, -ENOMEM, or -ENAMETOOLONG for over 1024
// components.
[[nodiscard]] int resolve_path(char *path, fat_path *rec, char **name, int *depth);

// Finds the open directory in which the final name of the path is to be looked up. A path with a
// parent component other than "." is followed only to the entry of that parent: the result is then
// not negative and `dir` is not changed. If all parents are ".", `dir` is a new record; the caller
// calls free_lookup_result() in every case.
[[nodiscard]] int fat_path_lookup(char *path, oentry **dir, char **name);

// Frees a directory record that a lookup created; ignores the root and the current directory.
void free_lookup_result(oentry *dir);

// Copies a path without its trailing slashes into 260 bytes; does not terminate a path of 260
// characters. Returns its length, -EINVAL (null) or -ENAMETOOLONG.
[[nodiscard]] int fat_get_name(const char *path, char *out);

// ---- create, remove ---------------------------------------------------------------------------

// Creates a name of the given kind in the open directory. Returns the index of its short entry,
// -EEXIST, -EINVAL (null, or the directory is removed), -ENOSPC if no slots were found, or another
// negative errno; a cluster allocated before a failure stays allocated.
[[nodiscard]] int do_create(oentry *dir, char *name, u32 kind);

// The same for a path; opens the new entry. Returns its id or a negative errno.
[[nodiscard]] int create_internal(char *path, u32 kind);

// Removes entry `index` and frees its clusters. Returns the result of remove_entry(), or a negative
// errno.
[[nodiscard]] int do_delete(oentry *dir, u32 index);

// Marks entry `index` deleted. Returns the number of entries marked, 1 or more, or a negative
// errno.
[[nodiscard]] int remove_entry(oentry *dir, u32 index);

// Whether only unused and deleted entries follow "." and "..". Returns 0 or 1 if so, else
// -ENOTEMPTY or another negative errno.
[[nodiscard]] int is_empty_dir(oentry *dir);

// Stores the name of a short entry: its long name if that is complete, else the short one. `size`
// is at least 256. Returns 0, -ENOENT (no such entry), -EINVAL, -ENOMEM or the error of the walk.
[[nodiscard]] int get_name_of_entry(u32 base_clu, u32 index, char *out, u32 size);

// ---- oentry -----------------------------------------------------------------------------------

inline constexpr u32 MAX_ENTRIES = std::size(oentry_table);

// The record of an id, null for an empty slot and for an invalid id.
[[nodiscard]] oentry *entry_of(int id);

// Stores the record in the lowest free slot, which takes ownership. Returns its id or -EMFILE.
[[nodiscard]] int register_oentry(oentry *entry);

// Fills a zeroed record from a dentry copy, whose entry is at byte `offset` of `sector`, or as the
// root directory if the copy is null. A copy of ".." that leads to the root gives a copy of the
// root's record; an entry whose chain leads to a free entry gives a record without a dentry copy,
// with result 0. Returns 0, -ENOMEM or the error of the chain.
[[nodiscard]] int fat_set_oentry(const u8 *dentry_image, u32 sector, u32 offset, oentry *entry);

// Opens entry `index` of the directory. Returns its id or a negative errno.
[[nodiscard]] int fat_entry_open(oentry *parent, u32 index);

// Opens the root directory as id 0, or fills its open record again, and makes it current. Returns 0
// or a negative errno.
[[nodiscard]] int open_root_directory();

// The lowest clear bit of a map of `bits` bits, or -1.
[[nodiscard]] int find_free_slot(const u32 *map, u32 bits);
void mark_slot(u32 *map, u32 id);
void unmark_slot(u32 *map, u32 id);

// Drops one reference of an id; dropping the last one frees the record and its slot.
void put_oentry(int id);

// Frees an open entry and its dentry copy; ignores null. The caller clears its slot in the table.
// If it was the current directory, the root becomes current.
void free_oentry(oentry *entry);

// ---- file -------------------------------------------------------------------------------------

// Stores the record of an id that names an open file. Returns 0, -EINVAL (no such id; null is
// stored) or -EISDIR.
[[nodiscard]] int get_file_entry(int id, oentry **entry);

// Appends to the file and writes its directory entry. Returns `count`, or a negative errno: -EFBIG
// before any change; after -EIO of the directory entry, data and clusters stay written.
[[nodiscard]] int write_file_internal(oentry *entry, const void *buffer, u32 count);

// Writes at byte `position`, which is at most the end of the allocated clusters, and advances it.
// Allocates all clusters first; frees them again on failure. Returns `count` or a negative errno.
[[nodiscard]] int do_write_file(oentry *entry, const void *buffer, u32 count, u32 *position);

// Reads from the position of the record up to the end of the file and advances the position.
// Returns the number of bytes read, at most INT_MAX, or a negative errno.
[[nodiscard]] int read_file_internal(oentry *entry, void *buffer, u32 count);

// Reads exactly `count` bytes at `position` and advances it. Returns `count` or a negative errno.
[[nodiscard]] int do_read_file(oentry *entry, void *buffer, u32 count, u64 *position);

// ---- metadata ---------------------------------------------------------------------------------

inline constexpr u32 MAX_PATHNAME = 4096; // bytes of an absolute path with its terminator

// Searches the tree below `dir` for the file, link or directory whose chain contains the cluster.
// On success appends "/" and a name for each level to `path` (4096 bytes), stores the base cluster
// of its directory in `parent`, which may be null, and returns its index there. Otherwise returns
// -ENOENT, -ENAMETOOLONG, -EINVAL for a tree with more directories than the volume has clusters, or
// the error of the walk.
[[nodiscard]] int find_entry_with_clu(oentry *dir, u32 cluster, u32 *parent, char *path);

// ---- zuq --------------------------------------------------------------------------------------

// The first cluster of the chain from `start` on for which the predicate is true with `key`;
// -ENOENT at the end of the chain, or the error of the FAT. `stop` ends a search that begins at the
// end mark.
[[nodiscard]] int find_cluster(u32 start, u32 stop, u32 key,
                               bool (*predicate)(u32 cluster, u32 key));

// Finds the next file from the walk position in the record of the directory. Returns 1; 0 or
// -ENOENT at the end; or another negative value. `entry` (32 bytes) receives a copy of the file's
// entry or, if the walk met a long name before it, of the first slot of the first such name;
// `location` is always that of the file's short entry. `name->cstring`, which may be null, has 256
// bytes.
[[nodiscard]] int do_readdir_fast(oentry *dir, u8 *entry, fat_name *name,
                                  dentry_location *location);

// Collects in `uname` (256 units) the long name whose last slot is `*current`, entry `index`
// counted from the start of `cluster` (0: the FAT16 root area). Returns the number of its slots, 0
// for a broken name, or the error of the walk. `*current` then points into `sector_buf` (one
// sector). The caller zeroes `uname`: a name that fills its slots is not terminated.
[[nodiscard]] int get_long_name_fast(u32 cluster, u32 index, u8 **current, u8 *sector_buf,
                                     u16 *uname);

// Stores the cluster `n` links after `cluster`. Returns 1, 0 if the chain ends before, -EINVAL for
// an invalid first number, -1 for a broken chain.
[[nodiscard]] int get_next_cluster(u32 cluster, u32 n, u32 *out);

using core::encode_fast_word;

// ---- list -------------------------------------------------------------------------------------

// One line of a directory listing.
struct dir_item {
    u8 type;  // entry type of the short entry
    u32 size; // bytes; for a directory, the size of its clusters
    char name[256];
};

// Finds the next file, directory or link of the directory from `*index` on and advances `*index`
// past it. `sector_buf` (one sector) then contains its short entry, at `*entry`; `location`, which
// may be null, is that of the first entry read for it. Returns 0 or more, -ENOENT at the end, or
// the error of the walk.
[[nodiscard]] int do_readdir(oentry *dir, u32 *index, u8 **entry, dir_item *item, u8 *sector_buf,
                             dentry_location *location);

// Print one entry: a line and, in mode 2, its fields; null selects standard output. Returns 0, or
// -ENOENT for an unused one.
int print_slot(u32 index, int mode, const u8 *entry, FILE *stream);
void print_short_entry(FILE *stream, const u8 *entry);
void print_long_slot(FILE *stream, const u8 *entry);

// Prints up to `count` units in hexadecimal, stopping at a 0, and a newline.
void print_units(FILE *stream, const u16 *units, u32 count);

// Prints the 11 bytes of a short name unconverted, and a newline.
void print_raw_name(FILE *stream, const u8 *entry);

void print_item(FILE *stream, const dir_item *item);

// ---- debug ------------------------------------------------------------------------------------

void print_name_record(int level, const fat_name *name);
void print_path_record(int level, const char *path, char **components, const char *name, int depth);

} // namespace fat
