// Listings of directories, clusters and files of raw entries, and the printers of entries.
//
// Intentional: a listing of slots ends at the first unused one of each cluster, not of the
// directory, so it also shows entries in the clusters after it.

#include "fat/internal.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

using namespace fat;

namespace fat {

namespace {

enum : int { MODE_ITEMS = 0, MODE_FIELDS = 2 };

constexpr u32 HOST_BLOCK = 4096; // bytes read at once from a file of raw entries

// ---- items ----

// The size of a directory is that of its clusters, 0 for a broken chain.
u32 size_of_item(u32 type, const u8 *entry) {
    if (type != DENTRY_DIR) {
        return load(entry, SHORT_FILE_SIZE);
    }
    u32 last = 0;
    const int clusters = fat_count_clusters(start_cluster(entry), &last);
    return clusters > 0 ? static_cast<u32>(clusters) * cluster_bytes() : 0;
}

void fill_short_item(const u8 *entry, dir_item *item) {
    const u32 type = entry_type(entry);
    item->type = static_cast<u8>(type);
    item->size = size_of_item(type, entry);
    convert_dosname_to_cstring(entry, item->name, static_cast<u8>(load(entry, SHORT_SYSID)));
}

// Fills the item from a long name and the short entry after it. A long name that is not
// representable in the encoding is replaced by the short one.
void fill_long_item(const u8 *entry, const u16 *units, dir_item *item) {
    char name[LONG_NAME_UNITS + 1] = {}; // the conversion does not terminate a name of 256 units
    const bool is_converted = convert_uname_to_cstring(units, name) >= 0;
    fill_short_item(entry, item);
    if (is_converted) {
        name[sizeof item->name - 1] = '\0';
        std::memcpy(item->name, name, sizeof item->name);
    }
}

// Processes entry `index` of a listing. Returns the number of entries used to fill the item, 0 for
// an entry to skip, or a negative errno.
int read_item(oentry *dir, u32 index, u8 **entry, dir_item *item, u8 *sector_buf) {
    switch (entry_type(*entry)) {
    case DENTRY_UNUSED:
        return -ENOENT;
    case DENTRY_FILE:
    case DENTRY_DIR:
        fill_short_item(*entry, item);
        return 1;
    case DENTRY_LFN: {
        u16 units[LONG_NAME_UNITS] = {};
        const int slots =
            sv->long_name == 1 ? get_long_name(dir, index, entry, sector_buf, units) : 0;
        if (slots <= 0) {
            return slots;
        }
        fill_long_item(*entry, units, item);
        return slots + 1;
    }
    default:
        return 0;
    }
}

// ---- slots ----

// How the slot printer shows an entry: the format of its line, with the index, and the printer of
// its fields.
struct slot_description {
    const char *line;
    void (*print_fields)(FILE *stream, const u8 *entry);
};

slot_description describe_deleted(const u8 *entry) {
    const u32 attr = load(entry, SHORT_ATTR);
    if ((attr & ATTR_LONG_NAME_MASK) == ATTR_LONG_NAME) {
        return {"[%u] deleted extended entry\n", print_long_slot};
    }
    switch (attr & ATTR_KIND_MASK) {
    case 0:
        return {"[%u] deleted file\n", print_short_entry};
    case ATTR_DIRECTORY:
        return {"[%u] deleted directory\n", print_short_entry};
    default:
        return {"[%u] deleted entry\n", nullptr};
    }
}

slot_description describe_slot(u32 type, const u8 *entry) {
    switch (type) {
    case DENTRY_UNUSED:
        return {"[%u] unused\n", nullptr};
    case DENTRY_VOLUME:
        return {"[%u] volume entry\n", nullptr};
    case DENTRY_DELETED:
        return describe_deleted(entry);
    case DENTRY_DIR:
        return {"[%u] directory\n", print_short_entry};
    case DENTRY_FILE:
        return {"[%u] file(short name)\n", print_short_entry};
    case DENTRY_LFN:
        return {"[%u] extended slot\n", print_long_slot};
    default:
        return {"[%u] invalid entry\n", print_short_entry};
    }
}

// Prints the entries of a block, numbered from `first`. Returns 0, or -ENOENT if it ended at an
// unused one.
int print_slots(const u8 *block, u32 count, u32 first, int mode, FILE *stream) {
    for (u32 i = 0; i < count; i++) {
        const int result =
            print_slot(first + i, mode, block + std::size_t{i} * DENTRY_SIZE, stream);
        if (result < 0) {
            return result;
        }
    }
    return 0;
}

// ---- directories ----

int list_root_area(int mode, FILE *stream) {
    const heap_ptr<u8> sector_buf = zeroed_bytes(sv->sector_size);
    if (sector_buf == nullptr) {
        return -ENOMEM;
    }
    const u32 entries_per_sector = sv->sector_size / DENTRY_SIZE;
    const u32 sectors = FAT16_ROOT_ENTRIES / entries_per_sector;
    for (u32 i = 0; i < sectors; i++) {
        if (read_medium(sector_buf.get(), sv->rdir_start + i, 1) != 1) {
            report_at("fat_list_dir", __LINE__, "Failed go read sector!\n\n");
            return -EIO;
        }
        if (print_slots(sector_buf.get(), entries_per_sector, i * entries_per_sector, mode,
                        stream) < 0) {
            return 0;
        }
    }
    return 0;
}

// Lists the clusters of an array of `count` elements, without its terminator.
int list_chain(const u32 *clusters, int count, int mode, FILE *stream) {
    for (int i = 0; i + 1 < count; i++) {
        std::fprintf(stream, "[%d-th: cluster #%d]\n", i, static_cast<int>(clusters[i]));
        const int result = fat_list_clus(clusters[i], mode, stream);
        if (result < 0) {
            return result == -ENOENT ? 0 : result;
        }
    }
    return 0;
}

// Lists the directory and closes its id. Intentional: the id stays open after a broken chain.
int list_open_directory(int id, bool is_root_area, int mode, FILE *stream) {
    oentry *dir = entry_of(id);
    if (dir == nullptr) {
        return -ENOENT;
    }
    int result = 0;
    if (mode == MODE_ITEMS) {
        result = fat_readdir(dir, stream);
    } else if (is_root_area) {
        result = list_root_area(mode, stream);
    } else {
        u32 *array = nullptr;
        const int count = fat_get_chains(dir, &array);
        if (count < 0) {
            return count;
        }
        const heap_ptr<u32> clusters(array);
        result = list_chain(clusters.get(), count, mode, stream);
    }
    (void)fat_close(id); // prints a diagnostic for the id of the root, which stays open
    return result;
}

} // namespace

// ---- printers ---------------------------------------------------------------------------------

void print_item(FILE *stream, const dir_item *item) {
    std::fprintf(stream, "%c %10u \t%s\n", item->type == DENTRY_DIR ? 'd' : 'f', item->size,
                 item->name);
}

void print_raw_name(FILE *stream, const u8 *entry) {
    std::fwrite(entry + SHORT_NAME.offset, 1, SHORT_NAME.size, stream);
    std::fputc('\n', stream);
}

void print_units(FILE *stream, const u16 *units, u32 count) {
    for (u32 i = 0; i < count && units[i] != 0; i++) {
        std::fprintf(stream, "%04x ", units[i]);
    }
    std::fputc('\n', stream);
}

void print_short_entry(FILE *stream, const u8 *entry) {
    std::fputs("\tname:\t", stream);
    print_raw_name(stream, entry);
    std::fprintf(stream, "\tattr:\t0x%x\n\tsysid:\t0x%02X\n", load(entry, SHORT_ATTR),
                 load(entry, SHORT_SYSID));
    std::fprintf(stream, "\tcmsec: ctime: cdate = \t%d \t0x%x \t0x%x\n",
                 static_cast<int>(load(entry, SHORT_CMSEC)), load(entry, SHORT_CTIME),
                 load(entry, SHORT_CDATE));
    std::fprintf(stream, "\tadate: mtime: mdate = \t0x%x \t0x%x \t0x%x\n", load(entry, SHORT_ADATE),
                 load(entry, SHORT_MTIME), load(entry, SHORT_MDATE));
    std::fprintf(stream, "\tstart_clu:\t0x%04x %04x (%d)\n", load(entry, SHORT_START_HIGH),
                 load(entry, SHORT_START_LOW), static_cast<int>(start_cluster(entry)));
    std::fprintf(stream, "\tsize:\t%d\n", static_cast<int>(load(entry, SHORT_FILE_SIZE)));
}

void print_long_slot(FILE *stream, const u8 *entry) {
    const u32 ordinal = load(entry, SLOT_ORDINAL);
    std::fprintf(stream, "\toffset:\t0x%02X %s\n", ordinal, ordinal > SLOT_LAST ? "(Last)" : "");
    std::fprintf(stream, "\tattr:\t0x%02X\n", load(entry, SLOT_ATTR));
    std::fprintf(stream, "\tsysid:\t0x%x\n", load(entry, SLOT_SYSID));
    std::fprintf(stream, "\tchecksum:\t0x%02X\n", load(entry, SLOT_CHECKSUM));
    std::fprintf(stream, "\tstart_clu:\t0x%x\n", load(entry, SLOT_START));
    u16 units[core::UNITS_PER_SLOT];
    for (u32 i = 0; i < core::UNITS_PER_SLOT; i++) {
        units[i] = load16(entry + slot_unit_offset(i));
    }
    std::fputs("\tunname[0-4]:\t", stream);
    print_units(stream, units, 5);
    std::fputs("\tunname[5-10]:\t", stream);
    print_units(stream, units + 5, 6);
    std::fputs("\tunname[11-12]:\t", stream);
    print_units(stream, units + 11, 2);
}

int print_slot(u32 index, int mode, const u8 *entry, FILE *stream) {
    FILE *out = stream_or_stdout(stream);
    const u32 type = entry_type(entry);
    const slot_description description = describe_slot(type, entry);
    std::fprintf(out, description.line, index);
    if (mode == MODE_FIELDS && description.print_fields != nullptr) {
        description.print_fields(out, entry);
    }
    return type == DENTRY_UNUSED ? -ENOENT : 0;
}

// ---- items ------------------------------------------------------------------------------------

int do_readdir(oentry *dir, u32 *index, u8 **entry, dir_item *item, u8 *sector_buf,
               dentry_location *location) {
    const u32 count = dir_entry_count(dir);
    for (u32 i = *index; i < count; i++) {
        const int fetched = fat_get_dentry(dir, i, entry, sector_buf, location);
        if (fetched < 0) {
            REPORT("Failed go get entry!\n\n");
            return fetched;
        }
        const int entry_count = read_item(dir, i, entry, item, sector_buf);
        if (entry_count < 0) {
            return entry_count;
        }
        if (entry_count > 0) {
            *index = i + static_cast<u32>(entry_count);
            return fetched;
        }
    }
    return -ENOENT;
}

} // namespace fat

// ---- public calls -----------------------------------------------------------------------------

int fat_readdir(oentry *dir, FILE *stream) {
    const public_call call;
    if (dir == nullptr) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    if (not_mounted(__func__)) {
        return -EINVAL;
    }
    const heap_ptr<u8> sector_buf = zeroed_bytes(sv->sector_size);
    if (sector_buf == nullptr) {
        REPORT("Check here!\n\n");
        return -ENOMEM;
    }
    dir_item item = {};
    u8 *entry = nullptr;
    for (u32 index = 0; do_readdir(dir, &index, &entry, &item, sector_buf.get(), nullptr) >= 0;) {
        print_item(stream_or_stdout(stream), &item);
    }
    REPORT("Failed to do_readdir()!\n\n"); // Intentional: also at the normal end
    return 0;
}

int fat_list_dir(const char *path, int mode, FILE *stream) {
    const public_call call;
    if (not_mounted(__func__)) {
        return -EINVAL;
    }
    const int id = fat_open_dir(path);
    if (id < 0) {
        REPORT("cannot open directory(%d)\n", id);
        return id;
    }
    const bool is_root_area = path == nullptr && sv->fat_type != 32;
    return list_open_directory(id, is_root_area, mode, stream_or_stdout(stream));
}

int fat_list_clus(uint32_t cluster, int mode, FILE *stream) {
    if (not_mounted(__func__)) {
        return -EINVAL;
    }
    if (!is_data_cluster(cluster)) {
        REPORT("out of the cluster range\n");
        return -EINVAL;
    }
    const heap_ptr<u8> block = zeroed_bytes(cluster_bytes());
    if (block == nullptr) {
        REPORT("Failed to allocate memory!\n\n");
        return -ENOMEM;
    }
    const u32 sector = fat_sector(cluster);
    if (sector == 0) {
        REPORT("out of the data area\n\n");
        return -EINVAL;
    }
    const int moved = read_medium(block.get(), sector, sv->sec_per_clus);
    if (moved != static_cast<int>(sv->sec_per_clus)) {
        REPORT("cluster mis match!\n\n");
        return -EIO;
    }
    (void)print_slots(block.get(), cluster_bytes() / DENTRY_SIZE, 0, mode, stream);
    return moved;
}

int fat_list_entries(const char *host_path, int mode, FILE *stream) {
    if (host_path == nullptr) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    const unique_fd file(open(host_path, O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) {
        const int error = errno;
        REPORT("cannot open file\n");
        return -error;
    }
    const heap_ptr<u8> block = zeroed_bytes(HOST_BLOCK);
    if (block == nullptr) {
        return -ENOMEM;
    }
    ssize_t bytes = 0;
    for (u32 index = 1; (bytes = read(file.get(), block.get(), HOST_BLOCK)) > 0;) {
        const u32 count = static_cast<u32>(bytes) / DENTRY_SIZE;
        if (print_slots(block.get(), count, index, mode, stream) < 0) {
            break;
        }
        index += count;
    }
    return 0;
}

int fat_get_uname(int id, uint32_t index, uint16_t *uname) {
    const public_call call;
    if (uname == nullptr) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    if (not_mounted(__func__)) {
        return -EINVAL;
    }
    oentry *dir = entry_of(id);
    if (dir == nullptr) {
        REPORT("Check here!\n\n");
        return -EBADF;
    }
    const heap_ptr<u8> sector_buf = zeroed_bytes(sv->sector_size);
    if (sector_buf == nullptr) {
        REPORT("failed to allocate memory!\n\n");
        return -ENOMEM;
    }
    u8 *entry = nullptr;
    const int result = fat_get_dentry(dir, index, &entry, sector_buf.get(), nullptr);
    if (result < 0) {
        REPORT("Failed to get dentry!\n\n");
        return result;
    }
    if (entry_type(entry) != DENTRY_LFN) {
        REPORT("Failed to get long name!\n\n");
        return -EINVAL;
    }
    return get_long_name(dir, index, &entry, sector_buf.get(), uname);
}
