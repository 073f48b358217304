// File data: appending, reading, seeking.
//
// A write allocates all its clusters before it writes data; the order on the medium is FAT, data,
// directory entry. A read or write follows the chain once; contiguous sectors are one transfer.

#include "fat/internal.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

using namespace fat;

namespace fat {

namespace {

// One transfer stays below the limit of a system call (0x7ffff000 bytes on Linux).
constexpr u32 MAX_EXTENT_BYTES = 1U << 30;

enum : int { SEEK_FROM_START = 0, SEEK_FROM_POSITION = 1, SEEK_FROM_END = 2 };

u32 file_size(const oentry *entry) {
    return load(entry->dentry, SHORT_FILE_SIZE);
}

// ---- extents of the data ----

// Contiguous sectors of a file on the medium.
struct data_extent {
    u32 sector = 0; // first sector
    u32 count = 0;
};

// Clusters that a write has allocated, and linked in this order to the end of a chain.
struct new_clusters {
    const u32 *numbers = nullptr;
    u32 count = 0;
    u32 old_count = 0; // clusters before them in the chain
    u32 old_last = 0;  // the last one of those
};

// Finds the extents of a file in order. Sectors in new clusters are found without the FAT, if the
// chain before them is sound and leads to them.
struct extent_finder {
    oentry *entry;
    core::table fat;
    core::chain_cursor cursor;
    core::result<u32> ahead = core::fault::NONE; // first sector of the next extent, if `has_ahead`
    bool has_ahead = false;
    new_clusters added;
    bool is_joined = false; // the chain has been followed up to the new clusters
    u32 reached = 0;        // number of new clusters up to the last one found

    // Continues from the position that the entry has stored, if it is valid.
    explicit extent_finder(oentry *of, const new_clusters &at_end = {})
        : entry(of), fat(here()), added(at_end) {
        if (keeps_positions() && entry->kept_epoch == chain_epoch() &&
            entry->kept_first == entry->start) {
            cursor.first = entry->kept_first;
            cursor.cluster = entry->kept_cluster;
            cursor.links = entry->kept_links;
        }
    }
    extent_finder(const extent_finder &) = delete;
    extent_finder &operator=(const extent_finder &) = delete;
    ~extent_finder() {
        if (reached > 0) {
            cursor.first = entry->start;
            cursor.cluster = added.numbers[reached - 1];
            cursor.links = added.old_count + reached - 1;
        }
        if (keeps_positions() && fat.on().is_data_cluster(cursor.first) &&
            fat.on().is_data_cluster(cursor.cluster)) {
            entry->kept_first = cursor.first;
            entry->kept_cluster = cursor.cluster;
            entry->kept_links = cursor.links;
            entry->kept_epoch = chain_epoch();
        }
    }

    [[nodiscard]] core::result<u32> locate(u32 sector_index) {
        const u32 index = sector_index / sv->sec_per_clus - added.old_count;
        if (index < added.count) {
            const core::fault failed = join();
            if (failed != core::fault::NONE) {
                return failed;
            }
        }
        if (index >= added.count) { // also if the new clusters are of no use
            return core::sector_in_space(fat, &cursor, entry->start, sector_index);
        }
        reached = index + 1;
        return fat.on().sector_of(added.numbers[index]) + sector_index % sv->sec_per_clus;
    }
    // Follows the chain up to the new clusters, once, with the faults of a walk to one of them. If
    // it does not lead there, walks have to find out where it leads.
    [[nodiscard]] core::fault join() {
        if (is_joined) {
            return core::fault::NONE;
        }
        is_joined = true;
        bool leads_there = added.old_count == 0 && entry->start == added.numbers[0];
        if (added.old_count > 0 && is_data_cluster(entry->start)) {
            const core::fault failed = cursor.move(fat, entry->start, added.old_count - 1);
            if (failed != core::fault::NONE) {
                return failed;
            }
            leads_there = is_data_cluster(added.old_last) && cursor.cluster == added.old_last;
        }
        if (!leads_there || !are_new_links()) {
            added.count = 0;
        }
        return core::fault::NONE;
    }
    // A search that met a damaged entry "finds" a cluster that is not valid; a record whose chain
    // was freed may get its last cluster again.
    [[nodiscard]] bool are_new_links() const {
        return std::all_of(added.numbers, added.numbers + added.count, [this](u32 number) {
            return fat.on().is_data_cluster(number) && number != added.old_last;
        });
    }
    // Number of sectors after this one in its cluster. The root area of FAT16 has no clusters.
    [[nodiscard]] u32 left_in_cluster(u32 sector_index) const {
        return entry->start == 0 ? 0 : sv->sec_per_clus - 1 - sector_index % sv->sec_per_clus;
    }
};

// Finds the extent that begins with sector `sector_index` of the file, of at most `max_sectors`
// sectors. A lookup that fails after the first sector ends the extent; the next call reports it.
int find_extent(extent_finder *finder, u32 sector_index, u32 max_sectors, data_extent *extent) {
    const core::result<u32> first =
        finder->has_ahead ? finder->ahead : finder->locate(sector_index);
    if (!first.ok()) {
        return report_place(first.why, finder->entry->start, finder->cursor);
    }
    *extent = {first.value, 0};
    finder->has_ahead = false;
    const u32 limit = std::min(max_sectors, MAX_EXTENT_BYTES / sv->sector_size);
    while (true) {
        const u32 rest = finder->left_in_cluster(sector_index + extent->count);
        extent->count = std::min(limit, extent->count + 1 + rest);
        if (extent->count == limit) {
            return 0;
        }
        finder->ahead = finder->locate(sector_index + extent->count);
        if (!finder->ahead.ok() || finder->ahead.value != extent->sector + extent->count) {
            finder->has_ahead = true;
            return 0;
        }
    }
}

// The part of a request that one transfer can cover: some bytes of one sector, or whole sectors.
struct data_part {
    u32 offset;  // in the first sector
    u32 bytes;   // length of the part
    u32 sectors; // number of whole sectors; 1 for a part of a sector

    [[nodiscard]] bool is_whole() const {
        return bytes == sectors * sv->sector_size;
    }
};

// The first part of a request of `left` bytes.
data_part first_part(u64 position, u32 left) {
    const u32 offset = static_cast<u32>(position % sv->sector_size);
    if (offset != 0 || left < sv->sector_size) {
        return {offset, std::min(sv->sector_size - offset, left), 1};
    }
    const u32 sectors = left / sv->sector_size;
    return {0, sectors * sv->sector_size, sectors};
}

// Files end below 4 GiB: the low 32 bits of a position select its sector.
u32 sector_index_at(u64 position) {
    return static_cast<u32>(position) / sv->sector_size;
}

// ---- writing ----

// Writes part of a sector: the bytes before it do not change, the bytes after it become zero.
int write_partial(u32 sector, const data_part &part, const u8 *data) {
    const heap_ptr<u8> buffer = zeroed_bytes(sv->sector_size);
    if (buffer == nullptr) {
        report_at("do_write_file", __LINE__, "cannot allocate memory\n");
        return -ENOMEM;
    }
    if (part.offset != 0 && read_medium(buffer.get(), sector, 1) != 1) {
        report_at("do_write_file", __LINE__, "cannot read sector\n");
        return -EIO;
    }
    const u32 end = part.offset + part.bytes;
    std::memcpy(buffer.get() + part.offset, data, part.bytes);
    std::memset(buffer.get() + end, 0, sv->sector_size - end);
    if (write_medium(buffer.get(), sector, 1) != 1) {
        report_at("do_write_file", __LINE__, "cannot write sector to file\n");
        return -EIO;
    }
    return 0;
}

int write_whole(const data_extent &extent, const u8 *data) {
    if (write_medium(data, extent.sector, extent.count) != static_cast<int>(extent.count)) {
        report_at("do_write_file", __LINE__, "cannot write sector to file\n");
        return -EIO;
    }
    return 0;
}

void report_write_lookup(int error) {
    report_at("do_write_file", __LINE__, "Failed to get FAT sector!(%d)\n\n", error);
    if (error == -EFAULT) {
        report_bare("access out of cluster chain\n");
    }
}

// Writes the data to allocated clusters, of which `added` are new.
int write_data(oentry *entry, const u8 *data, u32 count, u32 position, const new_clusters &added) {
    extent_finder finder(entry, added);
    for (u32 written = 0; written < count;) {
        data_part part = first_part(position, count - written);
        data_extent extent;
        const int found = find_extent(&finder, sector_index_at(position), part.sectors, &extent);
        if (found < 0) {
            report_write_lookup(found);
            return found;
        }
        const bool is_whole = part.is_whole();
        if (is_whole) {
            part.bytes = extent.count * sv->sector_size;
        }
        const int result = is_whole ? write_whole(extent, data + written)
                                    : write_partial(extent.sector, part, data + written);
        if (result < 0) {
            return result;
        }
        written += part.bytes;
        position += part.bytes;
    }
    return 0;
}

// The clusters of one write, and the state needed to undo their allocation.
struct write_allocation {
    heap_ptr<u32> clusters;
    u32 count = 0;
    u32 allocated = 0;
    u32 old_last = 0;
    u32 old_count = 0;

    [[nodiscard]] new_clusters added() const {
        return {clusters.get(), allocated, old_count, old_last};
    }
};

// Allocates clusters for `extra` bytes past the allocated ones. Returns 0 or a negative errno; in
// both cases `allocation` describes what was allocated.
int allocate_for_write(oentry *entry, u32 extra, write_allocation *allocation) {
    const u32 count = div_ceil(extra, cluster_bytes());
    allocation->clusters = zeroed_records<u32>(count);
    if (allocation->clusters == nullptr) {
        report_at("do_write_file", __LINE__, "Memory allocation error!\n\n");
        return -ENOMEM;
    }
    allocation->count = count;
    allocation->old_last = entry->last;
    allocation->old_count = entry->allocated / cluster_bytes();
    const int result =
        alloc_clusters(entry, allocation->clusters.get(), count, &allocation->allocated);
    if (result < 0) {
        report_at("do_write_file", __LINE__, "cannot allocate cluster\n");
        return result;
    }
    if (entry->start == 0 && sv->fat_type != 32) {
        // After a damaged entry the search may store cluster 0, which lookups take for the root
        // area.
        report_write_lookup(-EINVAL);
        return -EINVAL;
    }
    return 0;
}

void undo_write_allocation(oentry *entry, const write_allocation &allocation) {
    if (allocation.count != 0) {
        undo_allocation(entry, allocation.old_last, allocation.clusters.get(), allocation.count,
                        allocation.allocated);
    }
}

// Bytes of the request that do not fit the allocated clusters. Intentional: a signed number of 32
// bits, so a recorded size far beyond the chain wraps; the lookup that follows detects it.
s32 missing_bytes(const oentry *entry, u32 count, u32 position) {
    return static_cast<s32>(count - (entry->allocated - position));
}

// Whether the end of the file, the chain or the result would exceed 32 bits.
bool is_too_large(const oentry *entry, u32 count, u32 position) {
    constexpr u64 LIMIT = UINT32_MAX;
    const s32 missing = missing_bytes(entry, count, position);
    const u64 clusters = missing > 0 ? div_ceil(static_cast<u32>(missing), cluster_bytes()) : 0;
    return count > INT_MAX || static_cast<u64>(position) + count > LIMIT ||
           entry->allocated + clusters * cluster_bytes() > LIMIT;
}

// Intentional: a write sets the date and clears the time.
void stamp_write_date(u8 *dentry) {
    set_entry_time(dentry);
    store(dentry, SHORT_MTIME, 0);
}

// Writes the dentry copy to the medium. Intentional: a read of 0 sectors is not an error, a write
// of 0 sectors is.
int write_dentry(const oentry *entry) {
    const heap_ptr<u8> sector = zeroed_bytes(sv->sector_size);
    if (sector == nullptr) {
        report_at("write_file_internal", __LINE__, "Memory allocation error!\n\n");
        return -ENOMEM;
    }
    if (!lies_in_one_sector(*entry) || read_medium(sector.get(), entry->dentry_sector, 1) < 0) {
        report_at("write_file_internal", __LINE__, "Failed to read sectors!\n\n");
        return -EIO;
    }
    std::memcpy(sector.get() + entry->dentry_offset, entry->dentry, DENTRY_SIZE);
    if (write_medium(sector.get(), entry->dentry_sector, 1) != 1) {
        report_at("write_file_internal", __LINE__, "cannot update metadata\n");
        return -EIO;
    }
    return 0;
}

// ---- reading ----

int read_partial(u32 sector, const data_part &part, u8 *sector_buf, u8 *data) {
    if (read_medium(sector_buf, sector, 1) != 1) {
        report_at("do_read_file", __LINE__, "cannot read sector\n");
        return -EIO;
    }
    std::memcpy(data, sector_buf + part.offset, part.bytes);
    return 0;
}

int read_whole(const data_extent &extent, u8 *data) {
    if (read_medium(data, extent.sector, extent.count) != static_cast<int>(extent.count)) {
        report_at("do_read_file", __LINE__, "cannot read sector\n");
        return -EIO;
    }
    return 0;
}

void report_read_lookup(int error) {
    report_at("do_read_file", __LINE__, "Failed to get FAT sector!\n\n");
    if (error == -EFAULT) {
        report_at("do_read_file", __LINE__, "access out of cluster chain\n");
    }
}

int read_data(oentry *entry, u8 *sector_buf, u8 *data, u32 count, u64 position) {
    extent_finder finder(entry);
    for (u32 done = 0; done < count;) {
        data_part part = first_part(position, count - done);
        data_extent extent;
        const int found = find_extent(&finder, sector_index_at(position), part.sectors, &extent);
        if (found < 0) {
            report_read_lookup(found);
            return found;
        }
        const bool is_whole = part.is_whole();
        if (is_whole) {
            part.bytes = extent.count * sv->sector_size;
        }
        const int result = is_whole ? read_whole(extent, data + done)
                                    : read_partial(extent.sector, part, sector_buf, data + done);
        if (result < 0) {
            return result;
        }
        done += part.bytes;
        position += part.bytes;
    }
    return 0;
}

// ---- ids ----

oentry *open_record(int id) {
    return id >= 0 ? entry_of(id) : nullptr;
}

// A record without a dentry copy counts as a directory: it is the root, or an entry whose chain
// leads to a free entry.
bool is_directory(const oentry *entry) {
    return entry->dentry == nullptr || is_live_directory(entry->dentry);
}

} // namespace

int get_file_entry(int id, oentry **entry) {
    *entry = open_record(id);
    if (*entry == nullptr) {
        report_bare("not open file id %d\n", id);
        return -EINVAL;
    }
    if (is_directory(*entry)) {
        report_bare("not file\n\n");
        return -EISDIR;
    }
    return 0;
}

int do_write_file(oentry *entry, const void *buffer, u32 count, u32 *position) {
    write_allocation allocation;
    const s32 missing = missing_bytes(entry, count, *position);
    int result = 0;
    if (missing > 0) {
        result = allocate_for_write(entry, static_cast<u32>(missing), &allocation);
    }
    if (result == 0) {
        result = write_data(entry, static_cast<const u8 *>(buffer), count, *position,
                            allocation.added());
    }
    if (result < 0) {
        undo_write_allocation(entry, allocation);
        return result;
    }
    *position += count;
    return static_cast<int>(count);
}

int write_file_internal(oentry *entry, const void *buffer, u32 count) {
    const u32 size = file_size(entry);
    u32 position = size;
    const int written = is_too_large(entry, count, position)
                            ? -EFBIG
                            : do_write_file(entry, buffer, count, &position);
    if (written <= 0) {
        REPORT("Failed to write file!\n\n");
        return written;
    }
    if (position != size) {
        store(entry->dentry, SHORT_FILE_SIZE, position);
        stamp_write_date(entry->dentry);
    }
    const int updated = write_dentry(entry);
    return updated < 0 ? updated : written;
}

int do_read_file(oentry *entry, void *buffer, u32 count, u64 *position) {
    const heap_ptr<u8> sector_buf = zeroed_bytes(sv->sector_size);
    if (sector_buf == nullptr) {
        REPORT("cannot allocate memory\n");
        return -ENOMEM;
    }
    // The position wrapped below 0.
    if (*position > INT64_MAX) {
        report_read_lookup(-EINVAL);
        return -EINVAL;
    }
    const int result =
        read_data(entry, sector_buf.get(), static_cast<u8 *>(buffer), count, *position);
    if (result < 0) {
        return result;
    }
    *position += count;
    return static_cast<int>(count);
}

int read_file_internal(oentry *entry, void *buffer, u32 count) {
    const u32 size = file_size(entry);
    // Intentional: the comparison is signed. Positions from 2^63 on pass it and fail later.
    if (static_cast<s64>(entry->pos) > static_cast<s64>(size)) {
        REPORT("file position beyonds the file size!\n\n");
        return -EINVAL;
    }
    u32 wanted = std::min(count, static_cast<u32>(INT_MAX)); // the result is an int
    if (entry->pos <= size) {
        wanted = std::min(wanted, static_cast<u32>(size - entry->pos));
    }
    if (wanted == 0) {
        return 0;
    }
    u64 position = entry->pos;
    const int done = do_read_file(entry, buffer, wanted, &position);
    if (done > 0) {
        entry->pos = position;
    }
    return done;
}

} // namespace fat

int fat_write_file(int id, const void *buffer, uint32_t count) {
    const public_call call;
    if (buffer == nullptr || count == 0) {
        REPORT("NULL arg!\n\n");
        return -EINVAL;
    }
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    oentry *entry = nullptr;
    int result = get_file_entry(id, &entry);
    if (result == 0) {
        result = write_file_internal(entry, buffer, count);
    }
    if (result < 0) {
        REPORT("Failed go get file entry!\n\n");
    }
    return with_errno(result);
}

int fat_read_file(int id, void *buffer, uint32_t count) {
    const public_call call;
    if (buffer == nullptr || count == 0) {
        REPORT("Invalid arg!\n\n");
        return -EINVAL;
    }
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    oentry *entry = nullptr;
    int result = get_file_entry(id, &entry);
    if (result == 0) {
        result = read_file_internal(entry, buffer, count);
    }
    if (result < 0) {
        REPORT("Check here!\n\n");
    }
    return with_errno(result);
}

int64_t fat_lseek(int id, int64_t offset, int whence) {
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    oentry *entry = open_record(id);
    if (entry == nullptr) {
        REPORT("Failed to get file_entry!\n\n");
        return -EINVAL;
    }
    if (is_directory(entry)) {
        REPORT("is directory!\n\n");
        return -EISDIR;
    }
    // Intentional: sums are modulo 2^64. A position below 0 wraps to a very large one.
    const u64 distance = static_cast<u64>(offset);
    switch (whence) {
    case SEEK_FROM_START:
        entry->pos = distance;
        break;
    case SEEK_FROM_POSITION:
        entry->pos += distance;
        break;
    case SEEK_FROM_END:
        entry->pos = file_size(entry) + distance;
        break;
    default:
        REPORT("unknown seek command!\n\n");
        return -EINVAL;
    }
    return static_cast<int64_t>(entry->pos);
}

int fat_dump_entry(int id, char *name_out) {
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    const oentry *entry = open_record(id);
    if (entry == nullptr || entry->dentry == nullptr || name_out == nullptr) {
        REPORT("Failed to get file entry!\n\n");
        return -EBADF;
    }
    std::memcpy(name_out, entry->dentry + SHORT_NAME.offset, SHORT_NAME.size);
    name_out[SHORT_NAME.size] = '\0';
    return 0;
}
