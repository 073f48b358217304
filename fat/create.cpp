// Creating files, directories and symbolic links.
//
// Intentional: nothing is rolled back. Clusters of an entry that cannot be built stay allocated.

#include "fat/internal.h"

#include <cerrno>
#include <cstring>

using namespace fat;

namespace fat {

namespace {

// The name record of a new entry, released at the end of its scope.
struct name_guard {
    fat_name record = {};

    name_guard() = default;
    name_guard(const name_guard &) = delete;
    name_guard &operator=(const name_guard &) = delete;
    ~name_guard() {
        release_name(&record);
    }
};

// Directories and links begin with one cleared cluster, files without clusters.
int allocate_first_cluster(u32 kind, u32 *cluster) {
    return kind == DENTRY_DIR || kind == KIND_SYMLINK ? fat_extend_dir(nullptr, cluster) : 0;
}

// Builds the entry of a name that does not exist in the directory.
int build_new_entry(oentry *dir, fat_name *name, u32 kind, const creation_survey &survey) {
    const u32 count = slots_of(*name);
    u32 first = 0;
    if (find_empty_entries_after(dir, count, survey, &first) < 0) {
        return -ENOSPC; // Intentional: for every error
    }
    u32 cluster = 0;
    int result = allocate_first_cluster(kind, &cluster);
    if (result < 0) {
        return result;
    }
    const int index = build_entry_after(dir, first, count, kind, name, cluster, survey);
    if (index >= 0 && kind == DENTRY_DIR) {
        const u32 parent = dir->dentry != nullptr ? dir->start : 0;
        result = init_directory(parent, cluster);
    }
    return result < 0 ? result : index;
}

} // namespace

int do_create(oentry *dir, char *name, u32 kind) {
    if (dir == nullptr || name == nullptr) {
        REPORT("Invalid input\n");
        return -EINVAL;
    }
    if (!is_open_directory(dir)) {
        REPORT("not directory entry\n");
        return -EINVAL;
    }
    name_guard guard;
    creation_survey survey;
    const int found = find_for_creation(dir, name, &guard.record, &survey);
    if (found >= 0) {
        return -EEXIST;
    }
    return found == -ENOENT ? build_new_entry(dir, &guard.record, kind, survey) : found;
}

int create_internal(char *path, u32 kind) {
    oentry *dir = nullptr;
    char *name = nullptr;
    int result = fat_path_lookup(path, &dir, &name);
    if (result < 0) {
        REPORT("Check here!\n\n");
        return result;
    }
    result = do_create(dir, name, kind);
    if (result == -EEXIST) {
        REPORT("cannot create %s: File exists\n", path);
    }
    if (result >= 0) {
        result = fat_entry_open(dir, static_cast<u32>(result));
    }
    free_lookup_result(dir);
    return result;
}

namespace {

// The common part of the public calls that return an id.
int create_at(const char *function, const char *path, u32 kind) {
    const public_call call;
    if (no_volume(function)) {
        return -EINVAL;
    }
    path_buffer name = {};
    const int named = fat_get_name(path, name);
    if (named < 0) {
        report_at(function, __LINE__, "Check here!\n\n");
        return named;
    }
    return create_internal(name, kind);
}

} // namespace

} // namespace fat

int fat_create_file(const char *path) {
    return create_at(__func__, path, DENTRY_FILE);
}

int fat_mkdir(const char *path) {
    return create_at(__func__, path, DENTRY_DIR);
}

int fat_create_symlink(const char *target, const char *path) {
    const public_call call;
    if (target == nullptr) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    const std::size_t length = std::strlen(target);
    if (length > MAX_PATH_LENGTH) {
        REPORT("Check here!\n\n");
        return -ENAMETOOLONG;
    }
    if (no_volume(__func__)) {
        return -EINVAL;
    }
    path_buffer name = {};
    const int named = fat_get_name(path, name);
    if (named < 0) {
        REPORT("Check here!\n\n");
        return named;
    }
    const int id = create_internal(name, KIND_SYMLINK);
    if (id < 0) {
        REPORT("Check here!\n\n");
        return id;
    }
    const int written = fat_write_file(id, target, static_cast<uint32_t>(length));
    const bool is_whole = written == static_cast<int>(length);
    if (!is_whole) {
        REPORT("Check here!\n\n");
    }
    (void)fat_close(id); // cannot fail: the id is open
    return is_whole ? 0 : written;
}
