// Removing entries, and the names of entries that are given by their index.
//
// An entry is marked deleted in its slot; directories are never compacted. Intentional: the
// checksum that is compared with the long-name slots is computed after the entry was marked, so it
// matches no slot: the slots remain as orphans, which lookups skip.

#include "fat/internal.h"

#include <cerrno>
#include <cstring>

using namespace fat;

namespace fat {

namespace {

constexpr u32 REMOVED_SLOT_ATTR = 0xE5; // marks a long-name slot, in its attribute byte

// An entry of an open directory.
struct found_entry {
    oentry *dir = nullptr;
    u32 index = 0;
};

// Finds the entry at a path. The caller passes the directory to free_lookup_result() in every case.
// `path_error` is the message for an invalid path.
int find_entry(const char *function, const char *path, const char *path_error, found_entry *found) {
    path_buffer name = {};
    int result = fat_get_name(path, name);
    if (result < 0) {
        report_at(function, __LINE__, "%s\n\n", path_error);
        return result;
    }
    char *leaf = nullptr;
    result = fat_path_lookup(name, &found->dir, &leaf);
    if (result < 0) {
        report_at(function, __LINE__, "Cannot lookup parent!\n\n");
        return result;
    }
    result = fat_find_dentry(found->dir, leaf, nullptr);
    if (result < 0) {
        report_at(function, __LINE__, "Cannot find entry!\n\n");
        return result;
    }
    found->index = static_cast<u32>(result);
    return 0;
}

// Checks of the path that both removals share.
int check_path(const char *function, const char *path) {
    if (path == nullptr) {
        report_at(function, __LINE__, "NULL path!\n\n");
        return -EINVAL;
    }
    if (std::strlen(path) > MAX_PATH_LENGTH) {
        report_at(function, __LINE__, "Too long path!\n\n");
        return -ENAMETOOLONG;
    }
    return no_volume(function) ? -EINVAL : 0;
}

// Removes an open entry of `dir` and frees its clusters.
int delete_opened(oentry *dir, u32 index, oentry *entry) {
    if (is_live_directory(entry->dentry) && is_empty_dir(entry) < 0) {
        report_at("do_delete", __LINE__, "Check here!\n\n");
        return -ENOTEMPTY;
    }
    int result = fat_release_clusters(entry, 0);
    if (result < 0) {
        report_at("do_delete", __LINE__, "Check here!\n\n");
        return result;
    }
    result = remove_entry(dir, index);
    if (result < 0) {
        report_at("do_delete", __LINE__, "cannot remove the directory entry\n");
    }
    return result;
}

// Marks the slots before the entry that have the checksum. Returns their number, or a negative
// errno.
int mark_slots(span_sectors *span, oentry *dir, u32 index, u8 *entry, u8 checksum) {
    u8 *slot = entry;
    int marked = 0;
    for (u32 i = index; i > 0; i--) {
        if (same_sector(i - 1, i)) {
            slot -= DENTRY_SIZE;
        } else {
            int result = span->reserve();
            if (result == -EINVAL) {
                report_at("remove_entry", __LINE__, "out of range\n");
                return result;
            }
            if (result == 0) {
                result = span->load(dir, i - 1, &slot);
            }
            if (result < 0) {
                report_at("remove_entry", __LINE__, "Check here!\n\n");
                return result;
            }
        }
        if (load(slot, SLOT_ATTR) != ATTR_LONG_NAME || load(slot, SLOT_CHECKSUM) != checksum) {
            return marked;
        }
        store(slot, SLOT_ATTR, REMOVED_SLOT_ATTR);
        marked++;
        if (core::is_last_slot(slot)) {
            return marked;
        }
    }
    return marked;
}

// Collects the long name before the entry. False, after a diagnostic, if it is not complete.
bool collect_long_name(u32 base_clu, u32 index, u8 checksum, u8 *sector_buf, u16 *units) {
    while (index > 0) {
        index--;
        u8 *slot = nullptr;
        if (get_dentry_with_clu(base_clu, index, &slot, sector_buf, nullptr) < 0) {
            report_at("get_name_of_entry", __LINE__, "fail to get dentry(%u, %d)\n\n", base_clu,
                      static_cast<int>(index));
            return false;
        }
        if (entry_type(slot) != DENTRY_LFN || load(slot, SLOT_CHECKSUM) != checksum) {
            report_at("get_name_of_entry", __LINE__, "Check here!\n\n");
            return false;
        }
        core::gather_slot(slot, units, LONG_NAME_UNITS);
        if (core::is_last_slot(slot)) {
            return true;
        }
    }
    return units[0] != 0;
}

// Reads the short entry at `index`.
int read_named_entry(u32 base_clu, u32 index, u8 *sector_buf, u8 **entry) {
    const int result = get_dentry_with_clu(base_clu, index, entry, sector_buf, nullptr);
    if (result == -EFAULT) {
        report_at("get_name_of_entry", __LINE__, "Check here!\n\n");
        return -ENOENT;
    }
    if (result < 0) {
        report_at("get_name_of_entry", __LINE__, "fail to get dentry(%u, %d):%s\n\n", base_clu,
                  static_cast<int>(index), std::strerror(-result));
        return result;
    }
    const u32 type = entry_type(*entry);
    if (type != DENTRY_FILE && type != DENTRY_DIR) {
        report_at("get_name_of_entry", __LINE__, "Check here!\n\n");
        return -ENOENT;
    }
    return 0;
}

} // namespace

int is_empty_dir(oentry *dir) {
    if (!is_live_directory(dir->dentry)) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    dentry_walk walk(dir);
    if (!walk.slots.reserve()) {
        REPORT("Check here!\n\n");
        return -ENOMEM;
    }
    const u32 count = dir_entry_count(dir);
    for (u32 index = DOT_ENTRIES; index < count; index++) {
        u8 *entry = nullptr;
        const int result = walk_to(&walk, index, &entry);
        if (result == -EFAULT) {
            return 1;
        }
        if (result < 0) {
            REPORT("Check here!\n\n");
            return result;
        }
        if (!is_available(entry)) {
            return -ENOTEMPTY;
        }
    }
    return count > DOT_ENTRIES ? 1 : 0;
}

int remove_entry(oentry *dir, u32 index) {
    span_sectors span;
    u8 *entry = nullptr;
    int result = span.reserve();
    if (result == 0) {
        result = span.load(dir, index, &entry);
    }
    if (result != 0) {
        REPORT("Check here!\n\n");
        return result;
    }
    entry[SHORT_NAME.offset] = NAME_DELETED;
    const u8 checksum = dosname_checksum(entry + SHORT_NAME.offset);
    const int slots = mark_slots(&span, dir, index, entry, checksum);
    if (slots < 0) {
        return slots;
    }
    result = span.write_back();
    if (result < 0) {
        REPORT("Check here!\n\n");
        return result;
    }
    return slots + 1;
}

int do_delete(oentry *dir, u32 index) {
    const int id = fat_entry_open(dir, index);
    if (id < 0) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    oentry *entry = entry_of(id);
    int result = -ENOENT;
    if (entry == nullptr || entry->dentry == nullptr) {
        REPORT("Check here!\n\n");
    } else {
        result = delete_opened(dir, index, entry);
    }
    if (id > 0) {
        (void)fat_close(id); // cannot fail: the id is open
    }
    return result;
}

int get_name_of_entry(u32 base_clu, u32 index, char *out, u32 size) {
    const heap_ptr<u8> sector_buf = zeroed_bytes(sv->sector_size);
    if (out == nullptr || size < LONG_NAME_UNITS || sector_buf == nullptr) {
        REPORT("Check here!\n\n");
        return sector_buf == nullptr ? -ENOMEM : -EINVAL;
    }
    u8 *entry = nullptr;
    const int result = read_named_entry(base_clu, index, sector_buf.get(), &entry);
    if (result < 0) {
        return result;
    }
    std::memset(out, 0, size);
    convert_dosname_to_cstring(entry, out, static_cast<u8>(load(entry, SHORT_SYSID)));
    const u8 checksum = dosname_checksum(entry + SHORT_NAME.offset);
    u16 units[LONG_NAME_UNITS] = {};
    if (!collect_long_name(base_clu, index, checksum, sector_buf.get(), units)) {
        return 0;
    }
    // A long name that is not representable in the encoding is replaced by the short one.
    char long_name[LONG_NAME_UNITS + 1] = {};
    if (convert_uname_to_cstring(units, long_name) >= 0) {
        std::memcpy(out, long_name, LONG_NAME_UNITS);
    }
    return 0;
}

} // namespace fat

int fat_unlink(const char *path) {
    const public_call call;
    int result = check_path(__func__, path);
    if (result < 0) {
        return result;
    }
    found_entry found;
    result = find_entry(__func__, path, "Check here!", &found);
    if (result == 0) {
        result = do_delete(found.dir, found.index);
    }
    free_lookup_result(found.dir);
    return result;
}

int fat_rm_entry(const char *path) {
    const public_call call;
    int result = check_path(__func__, path);
    if (result < 0) {
        return result;
    }
    found_entry found;
    result = find_entry(__func__, path, "Cannot get name!", &found);
    if (result == 0) {
        result = remove_entry(found.dir, found.index);
        if (result < 0) {
            REPORT("cannot remove the directory entry\n");
        }
    }
    free_lookup_result(found.dir);
    return result;
}
