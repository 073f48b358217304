// Finding a name in one directory, and collecting the long name of an entry.
//
// A name with a long form matches only an entry whose collected long name is equal unit for unit; a
// name without one matches by the 11 bytes of the short name only. Intentional: a lookup orders
// slots by their ordinals and ignores their checksums, so slots in any order give the same name.

#include "fat/internal.h"

#include <cerrno>
#include <climits>
#include <cstring>

namespace fat {

namespace {

bool is_short_entry(u32 type) {
    return type == DENTRY_FILE || type == DENTRY_DIR;
}

bool has_short_name(const u8 *entry, const u8 *dosName) {
    return std::memcmp(entry + SHORT_NAME.offset, dosName, SHORT_NAME.size) == 0;
}

// Compares a short entry with the long name collected before it.
int compare_long_name(const u8 *entry, const u8 *dosName, const u16 *unicode, const u16 *gathered,
                      u32 *gathering) {
    if (*gathering == 0) {
        return 0;
    }
    if (unicode != nullptr && uname_compare(unicode, gathered) == 0) {
        return -EEXIST;
    }
    if (gathered[0] == 0 && has_short_name(entry, dosName)) {
        return -EEXIST;
    }
    *gathering = 0;
    return 0;
}

bool compares_long_names(const u16 *unicode) {
    return sv->long_name != 0 && (sv->long_name != 1 || unicode != nullptr);
}

// compare_entry_name() for an entry of known type.
int compare_entry(const u8 *entry, u32 type, const u8 *dosName, const u16 *unicode, u16 *gathered,
                  u32 *gathering) {
    if (!compares_long_names(unicode)) {
        if (!is_short_entry(type)) {
            *gathering = 0;
            return 0;
        }
        return has_short_name(entry, dosName) ? -EEXIST : 0;
    }
    if (is_short_entry(type)) {
        return compare_long_name(entry, dosName, unicode, gathered, gathering);
    }
    if (type == DENTRY_LFN) {
        core::gather_slot(entry, gathered, LONG_NAME_UNITS);
        *gathering = 1;
    }
    return 0;
}

// Whether the survey is that of other walks over the same directory, which would print nothing.
bool ends_silently(const dentry_walk &walk, const core::slot_survey &survey, bool at_unused) {
    return (at_unused || survey.visited == survey.limit) && !walk.slots.had_empty_read();
}

int report_found(u32 base_clu, u32 index) {
    report_at("find_dentry_with_clu", __LINE__, "found index:(%d, %d)\n",
              static_cast<int>(base_clu), static_cast<int>(index));
    return static_cast<int>(index);
}

int report_failed_walk(u32 base_clu, u32 index, int error) {
    report_at("find_dentry_with_clu", __LINE__, "fail to get dentry(%u, %d):%s\n", base_clu,
              static_cast<int>(index), std::strerror(-error));
    return error;
}

// A search for a name in one directory.
struct name_search {
    u32 base_clu;
    const fat_name *name;
    creation_survey *survey; // null: none
};

constexpr int NOT_KNOWN = -EAGAIN; // no walk returns it

// Whether a walk over the directory has to begin again, without what is stored of it: it is
// unusual, or the walk met a cycle, whose report depends on all clusters before it.
bool is_of_no_use(const core::directory_cache &cache, core::fault why) {
    return !cache.is_usable() || why == core::fault::CYCLE;
}

// Walks the directory from slot `index` on.
int search_from(u32 index, const name_search &search, dentry_walk *walk,
                core::directory_cache *cache) {
    const fat_name &name = *search.name;
    creation_survey *survey = cache == nullptr ? search.survey : nullptr;
    u16 gathered[LONG_NAME_UNITS] = {};
    u32 gathering = 0;
    bool is_silent = true;
    for (; index < INT_MAX; index++) { // the index is the result
        const core::result<u8 *> found = walk->slots.to(index);
        if (cache != nullptr) {
            cache->meet(walk->slots, index, found);
            if (is_of_no_use(*cache, found.why)) {
                return NOT_KNOWN;
            }
        }
        const int result = found.ok() ? 0 : report_walk(*walk, found.why, index);
        if (result < 0 && result != -EFAULT) {
            return report_failed_walk(search.base_clu, index, result);
        }
        const u8 *entry = found.value;
        const u32 type = result == 0 ? entry_type(entry) : DENTRY_UNUSED;
        if (survey != nullptr && result == 0) {
            survey->slots.visit(entry);
            is_silent = is_silent && type != DENTRY_INVALID;
        }
        if (type == DENTRY_UNUSED) {
            if (survey != nullptr) {
                survey->is_usable = is_silent && ends_silently(*walk, survey->slots, result == 0);
            }
            return -ENOENT;
        }
        if (type != DENTRY_LFN && !is_short_entry(type)) {
            gathering = 0;
            continue;
        }
        if (compare_entry(entry, type, name.dosName, name.unicode, gathered, &gathering) ==
            -EEXIST) {
            return report_found(search.base_clu, index);
        }
    }
    return -ENOENT;
}

// The result of a search without a walk, or NOT_KNOWN.
int search_cache(const name_search &search, core::directory_cache *cache) {
    const fat_name &name = *search.name;
    const bool by_long_name = compares_long_names(name.unicode);
    const u32 index =
        by_long_name ? cache->find_long(name.unicode) : cache->find_short(name.dosName);
    if (index != core::directory_cache::NONE) {
        return report_found(search.base_clu, index);
    }
    if (!cache->is_complete()) {
        return NOT_KNOWN;
    }
    if (search.survey != nullptr) {
        core::slot_survey &slots = search.survey->slots;
        cache->survey(&slots);
        search.survey->is_usable = cache->has_unused() || slots.visited == slots.limit;
    }
    return -ENOENT;
}

// Searches a directory of which something may be stored; walks over the rest of it.
int search_rest(const name_search &search, core::directory_cache *cache) {
    const int known = search_cache(search, cache);
    if (known != NOT_KNOWN) {
        return known;
    }
    dentry_walk walk(search.base_clu);
    if (!walk.slots.reserve()) {
        return NOT_KNOWN;
    }
    const u32 start = cache->walk_start();
    continue_walk(&walk.slots, search.base_clu, start);
    const int result = search_from(start, search, &walk, cache);
    if (walk.slots.had_empty_read()) {
        cache->clear(); // another walk sees other content there
        return result;
    }
    return result == -ENOENT ? search_cache(search, cache) : result;
}

// Walks the directory for the name. Returns the index of its short entry, or a negative errno.
int search_directory(u32 base_clu, const fat_name *name, creation_survey *survey) {
    const name_search search = {base_clu, name, survey};
    core::directory_cache *cache = sv->long_name <= 1 ? cached_directory(base_clu) : nullptr;
    const int known = cache != nullptr ? search_rest(search, cache) : NOT_KNOWN;
    if (known != NOT_KNOWN) {
        return known;
    }
    dentry_walk walk(base_clu);
    if (!walk.slots.reserve()) {
        report_at("find_dentry_with_clu", __LINE__, "Failed to allocate memory!\n\n");
        return -ENOMEM;
    }
    return search_from(0, search, &walk, nullptr);
}

int fill_names(char *cstring, fat_name *name) {
    const int filled = get_fatnames(cstring, name);
    if (filled < 0) {
        report_at("find_dentry_with_clu", __LINE__, "Failed to get fatnames!\n\n");
    }
    return filled;
}

int fill_and_search(u32 base_clu, char *cstring, fat_name *name) {
    const int filled = fill_names(cstring, name);
    return filled < 0 ? filled : search_directory(base_clu, name, nullptr);
}

// Advances `*entry` to the next entry; reads a sector only at the end of the buffer.
int read_next_entry(core::table *fat, core::chain_cursor *cursor, u32 base_clu, u32 index,
                    u8 **entry, u8 *sector_buf) {
    u8 *next = *entry + DENTRY_SIZE;
    if (next < sector_buf + sv->sector_size) {
        *entry = next;
        return 0;
    }
    const int result = get_dentry_from(fat, cursor, base_clu, index, entry, sector_buf, nullptr);
    if (result < 0) {
        report_at("get_long_name", __LINE__, "Failed to get entry with cluster ...\n\n");
    }
    return result;
}

void report_checksum(u32 index) {
    report_at("get_long_name", __LINE__, "not match checksum(%d)\n", static_cast<int>(index));
}

// Whether the entry is one of the lower slots of the long name.
bool continues_name(const u8 *entry, u8 checksum, u32 index, u16 *units) {
    if (entry_type(entry) != DENTRY_LFN) {
        units[0] = 0;
        return false;
    }
    if (core::is_last_slot(entry)) {
        return false;
    }
    if (load(entry, SLOT_CHECKSUM) != checksum) {
        report_checksum(index);
        return false;
    }
    return true;
}

// Whether the entry is the short entry of the slots.
bool ends_name(const u8 *entry, u8 checksum, u32 index, u16 *units) {
    if (!is_short_entry(entry_type(entry))) {
        return false;
    }
    if (dosname_checksum(entry + SHORT_NAME.offset) != checksum) {
        report_checksum(index);
        units[0] = 0;
        return false;
    }
    return true;
}

} // namespace

// ---- lookup -----------------------------------------------------------------------------------

int uname_compare(const u16 *a, const u16 *b) {
    for (u32 i = 0; i < LONG_NAME_UNITS; i++) {
        if (a[i] != b[i]) {
            return a[i] - b[i];
        }
        if (a[i] == 0) {
            return 0;
        }
    }
    return 0;
}

int compare_entry_name(const u8 *entry, const u8 *dosName, const u16 *unicode, u16 *gathered,
                       u32 *gathering) {
    const u32 type = entry_type(entry);
    if (compares_long_names(unicode) && gathered == nullptr) {
        REPORT("extended name is null\n\n");
        return -EEXIST;
    }
    return compare_entry(entry, type, dosName, unicode, gathered, gathering);
}

int find_dentry_with_clu(u32 base_clu, char *cstring, fat_name *name) {
    if (name != nullptr) {
        return fill_and_search(base_clu, cstring, name);
    }
    const heap_ptr<fat_name> temporary = zeroed_records<fat_name>();
    if (temporary == nullptr) {
        REPORT("Failed to allocate memory!\n\n");
        return -ENOMEM;
    }
    const int result = fill_and_search(base_clu, cstring, temporary.get());
    release_name(temporary.get());
    return result;
}

int fat_find_dentry(oentry *dir, char *cstring, fat_name *name) {
    if (dir == nullptr || cstring == nullptr) {
        REPORT("Check Here!\n\n");
        return -EINVAL;
    }
    return find_dentry_with_clu(base_cluster(dir), cstring, name);
}

u32 slots_of(const fat_name &name) {
    return name.unicode == nullptr ? 1 : core::long_slots_of(name.ulen) + 1;
}

int find_for_creation(oentry *dir, char *cstring, fat_name *name, creation_survey *survey) {
    const int filled = fill_names(cstring, name);
    if (filled < 0) {
        return filled;
    }
    survey->slots.limit = dir_entry_count(dir);
    survey->slots.span = core::free_span(slots_of(*name));
    survey->slots.name = name->unicode != nullptr ? name->dosName : nullptr;
    return search_directory(base_cluster(dir), name, survey);
}

// ---- long names -------------------------------------------------------------------------------

int get_long_name(oentry *dir, u32 index, u8 **entry, u8 *sector_buf, u16 *units) {
    core::table fat(here());
    core::chain_cursor cursor;
    return assemble_name(
        entry, core::slot_units::TO_TERMINATOR, units,
        [&] {
            return read_next_entry(&fat, &cursor, base_cluster(dir), ++index, entry, sector_buf);
        },
        [&](const u8 *next, u8 checksum, bool is_short) {
            return is_short ? ends_name(next, checksum, index, units)
                            : continues_name(next, checksum, index, units);
        });
}

} // namespace fat
