// Listings for programs: the entries of a directory one after another, and the properties of an
// open entry.
//
// A long name is used only if it is complete: its slots are directly before the short entry, in
// descending order from the one marked last to 1, and have the checksum of that entry. Nothing is
// reported: the results describe a damaged directory.

#include "fat/internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

using namespace fat;

namespace {

// ---- one entry ----

u32 kind_for_programs(const u8 *entry) {
    const core::slot_kind kind = core::kind_of(entry);
    return kind == core::slot_kind::FILE && core::is_symlink(entry) ? KIND_SYMLINK
                                                                    : static_cast<u32>(kind);
}

// The 11 bytes of a label without their padding; empty for a blank label.
void label_text(const u8 *entry, char *out) {
    u32 length = SHORT_NAME.size;
    while (length > 0 && entry[SHORT_NAME.offset + length - 1] == ' ') {
        length--;
    }
    std::memcpy(out, entry + SHORT_NAME.offset, length);
    out[length] = '\0';
}

// The short name of an entry as text, never empty: a blank name is copied with its padding.
void short_text(const u8 *entry, u8 lcase, char *out) {
    if (core::kind_of(entry) == core::slot_kind::LABEL) {
        label_text(entry, out);
    } else {
        convert_dosname_to_cstring(entry + SHORT_NAME.offset, out, lcase);
    }
    if (out[0] == '\0') {
        std::memcpy(out, entry + SHORT_NAME.offset, SHORT_NAME.size);
        out[SHORT_NAME.size] = '\0';
    }
}

bool is_blank_label(const u8 *entry) {
    char label[DOS_CSTRING_SIZE];
    label_text(entry, label);
    return label[0] == '\0';
}

void fill_fields(const u8 *entry, fat_entry_info *info) {
    info->type = static_cast<u8>(kind_for_programs(entry));
    info->attr = static_cast<u8>(load(entry, SHORT_ATTR));
    info->cmsec = static_cast<u8>(load(entry, SHORT_CMSEC));
    info->mtime = static_cast<u16>(load(entry, SHORT_MTIME));
    info->mdate = static_cast<u16>(load(entry, SHORT_MDATE));
    info->size = info->type == DENTRY_DIR ? 0 : load(entry, SHORT_FILE_SIZE);
    info->start = start_cluster(entry);
}

void fill_names(const u8 *entry, const core::name_assembler &name, fat_entry_info *info) {
    short_text(entry, 0, info->short_name);
    const bool is_label =
        core::kind_of(entry) == core::slot_kind::LABEL; // a label has no long name
    const bool shows_long = !is_label && sv->long_name != 0 && name.belongs_to(entry);
    if (!shows_long || !store_display_name(name.units(), info->name)) {
        short_text(entry, static_cast<u8>(load(entry, SHORT_SYSID)), info->name);
    }
}

// ---- walking ----

// Whether listings include the entry.
bool is_listed(const u8 *entry) {
    const core::slot_kind kind = core::kind_of(entry);
    return core::is_named_kind(kind) || (kind == core::slot_kind::LABEL && !is_blank_label(entry));
}

// A walk that reports nothing.
struct silent_walk {
    core::table fat;
    core::slot_walk slots;

    // Sectors that one call reads ahead, the next one would read again.
    explicit silent_walk(const oentry *dir)
        : fat(here_silently()), slots(fat, base_cluster(dir), dir->allocated / DENTRY_SIZE,
                                      core::slot_walk::empty_read::ZEROS) {
        slots.read_singly();
    }
    explicit silent_walk(u32 base_clu) : fat(here_silently()), slots(fat, base_clu) {}
    silent_walk(const silent_walk &) = delete;
    silent_walk &operator=(const silent_walk &) = delete;
    ~silent_walk() = default;
};

// Why a walk ended. Returns 0 for the end of the directory, else a negative errno.
int end_of_walk(core::fault why) {
    switch (why) {
    case core::fault::SIZE_END:
    case core::fault::ROOT_AREA_END:
    case core::fault::CHAIN_END:
        return 0;
    case core::fault::NO_MEMORY:
        return -ENOMEM;
    case core::fault::READ:
        return -EIO;
    default:
        return -EINVAL;
    }
}

// Walks to the next listed entry from `*index` on and advances `*index` past it. `cache`, which may
// be null, is what is stored of the directory. Returns 1, 0 at the end of the directory, or a
// negative errno.
int next_entry(core::slot_walk *slots, u32 *index, u8 **entry, core::name_assembler *name,
               core::directory_cache *cache) {
    name->reset();
    for (u32 i = *index;; i++) {
        const core::result<u8 *> slot = slots->to(i);
        if (cache != nullptr) {
            cache->meet(*slots, i, slot);
        }
        if (!slot.ok()) {
            return end_of_walk(slot.why);
        }
        *entry = slot.value;
        switch (core::kind_of(*entry)) {
        case core::slot_kind::UNUSED:
            return 0;
        case core::slot_kind::LONG_NAME:
            name->accept(*entry, i);
            continue;
        default:
            break;
        }
        if (is_listed(*entry)) {
            *index = i + 1;
            return 1;
        }
        name->reset();
    }
}

// ---- open entries ----

void describe_root(const oentry *root, fat_entry_info *info) {
    *info = {};
    info->name[0] = '/';
    info->type = DENTRY_DIR;
    info->attr = ATTR_DIRECTORY;
    info->start = base_cluster(root);
}

bool has_same_name(const u8 *a, const u8 *b) {
    return std::memcmp(a + SHORT_NAME.offset, b + SHORT_NAME.offset, SHORT_NAME.size) == 0;
}

// Finds an open entry in its directory on the medium, from slot `index` on, for its names and
// index.
int find_names(const oentry *entry, u32 index, fat_entry_info *info) {
    silent_walk walk(entry->parent_clus);
    continue_walk(&walk.slots, entry->parent_clus, index);
    for (;;) {
        u8 *found = nullptr;
        core::name_assembler name;
        const int result = next_entry(&walk.slots, &index, &found, &name, nullptr);
        if (result < 1) {
            return result == 0 ? -ENOENT : result;
        }
        const core::slot_place &place = walk.slots.place();
        if (place.sector == entry->dentry_sector && place.offset == entry->dentry_offset) {
            if (!has_same_name(found, entry->dentry)) {
                return -ENOENT; // another entry uses the slot now
            }
            info->index = index - 1;
            fill_names(found, name, info);
            return 0;
        }
    }
}

} // namespace

int fat_next_entry(int did, uint32_t *index, fat_entry_info *info) {
    if (index == nullptr || info == nullptr || not_mounted(__func__)) {
        return -EINVAL;
    }
    const oentry *dir = entry_of(did);
    if (dir == nullptr) {
        return -EBADF;
    }
    if (!is_open_directory(dir)) {
        return -ENOTDIR;
    }
    const public_call call;
    core::directory_cache *cache = cached_directory(base_cluster(dir));
    silent_walk walk(dir);
    continue_walk(&walk.slots, base_cluster(dir), *index);
    u8 *entry = nullptr;
    core::name_assembler name;
    const int result = next_entry(&walk.slots, index, &entry, &name, cache);
    if (cache != nullptr && walk.slots.had_empty_read()) {
        cache->clear();
    }
    if (result == 1) {
        *info = {};
        info->index = *index - 1;
        fill_fields(entry, info);
        fill_names(entry, name, info);
    }
    return result;
}

int fat_info_of(int id, fat_entry_info *info) {
    if (info == nullptr || not_mounted(__func__)) {
        return -EINVAL;
    }
    const oentry *entry = entry_of(id);
    if (entry == nullptr) {
        return -EBADF;
    }
    if (is_root(entry)) {
        describe_root(entry, info);
        return 0;
    }
    if (entry->dentry == nullptr) {
        return -ENOENT; // its chain leads to a free entry: the entry has been removed
    }
    fat_entry_info found = {};
    const public_call call;
    // From before its long name on, else from the start: the record may be older than a removal.
    const u32 name_start = entry->dentry_index - std::min(entry->dentry_index, MAX_LONG_SLOTS);
    int result = find_names(entry, name_start, &found);
    if (result == -ENOENT && name_start != 0) {
        result = find_names(entry, 0, &found);
    }
    if (result < 0) {
        return result;
    }
    fill_fields(entry->dentry, &found);
    *info = found;
    return 0;
}
