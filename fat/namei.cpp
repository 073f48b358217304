// Paths: splitting them and finding the directory of their last name.
//
// A path is resolved at most one level below its start directory. Names are truncated and compared
// in place, so every public operation works on a copy of its path.

#include "fat/internal.h"

#include <cerrno>
#include <cstring>

namespace fat {

namespace {

constexpr u32 MAX_COMPONENTS = 1024; // including the final name
constexpr u32 MAX_COMPONENT = 255;   // characters of a component that are compared
constexpr u32 DOT_DOT_INDEX = 1;     // index of the entry ".." in a directory

using component_buffer = char[MAX_COMPONENT + 1];

// A component ends at the next slash.
void copy_component(const char *component, component_buffer &out) {
    const std::size_t length = std::strcspn(component, "/");
    const std::size_t copied = length < MAX_COMPONENT ? length : MAX_COMPONENT;
    std::memcpy(out, component, copied);
    out[copied] = '\0';
}

// The component after `component`; null after the last one.
char *next_component(char *component) {
    char *slash = std::strchr(component, '/');
    return slash != nullptr ? slash + 1 : nullptr;
}

// The parts of a path, which point into it.
struct path_parts {
    char *first;
    char *name; // the final component; the same if there are no parents
    u32 parents;
};

int refuse_path(int error) {
    report_at("resolve_path", __LINE__, "Check here!\n\n");
    return error;
}

// Returns 0, or -ENAMETOOLONG for over 1024 components: `parts` then has the first of them.
int split_path(char *path, path_parts *parts) {
    char *component = path + std::strspn(path, "/");
    *parts = {component, component, 0};
    while ((component = next_component(component)) != nullptr) {
        parts->name = component;
        if (++parts->parents == MAX_COMPONENTS) {
            return -ENAMETOOLONG;
        }
    }
    return 0;
}

// Copies the first parent component other than ".", which leads away from the start directory.
// False if all are ".".
bool find_real_component(const path_parts &path, component_buffer &out) {
    char *component = path.first;
    for (u32 i = 0; i < path.parents; i++) {
        copy_component(component, out);
        if (std::strcmp(out, ".") != 0) {
            return true;
        }
        component = next_component(component);
    }
    return false;
}

// Reads the entry of a parent component. Intentional: does not open that directory. The lookup ends
// here, without a directory for its caller.
int read_parent_entry(u32 base_clu, component_buffer &component) {
    int index = DOT_DOT_INDEX;
    if (std::strcmp(component, "..") != 0) {
        index = find_dentry_with_clu(base_clu, component, nullptr);
        if (index < 0) {
            return index;
        }
    }
    const heap_ptr<u8> sector = zeroed_bytes(sv->sector_size);
    if (sector == nullptr) {
        report_at("fat_path_lookup", __LINE__, "Check here!\n\n");
        return -ENOMEM;
    }
    u8 *entry = nullptr;
    dentry_location location = {};
    const int result =
        get_dentry_with_clu(base_clu, static_cast<u32>(index), &entry, sector.get(), &location);
    if (result < 0) {
        report_at("fat_path_lookup", __LINE__, "fail to get dentry(%u, %d):%s\n", base_clu, index,
                  std::strerror(-result));
    }
    return result;
}

// A new record of the start directory, which the caller frees.
int open_start_again(const oentry *start, oentry **dir) {
    heap_ptr<oentry> entry = zeroed_records<oentry>();
    if (entry == nullptr) {
        return -ENOMEM;
    }
    const int result =
        fat_set_oentry(start->dentry, start->dentry_sector, start->dentry_offset, entry.get());
    if (result < 0) {
        return result;
    }
    if (start->dentry != nullptr && entry->dentry == nullptr) {
        return -ENOENT; // the directory was removed: its clusters are free
    }
    entry->parent_clus = start->parent_clus;
    *dir = entry.release();
    return 0;
}

int find_directory(oentry *start, const path_parts &path, oentry **dir) {
    if (path.parents == 0) {
        *dir = start;
        return 0;
    }
    component_buffer component;
    if (find_real_component(path, component)) {
        return read_parent_entry(base_cluster(start), component);
    }
    return open_start_again(start, dir);
}

} // namespace

int resolve_path(char *path, fat_path *rec, char **name, int *depth) {
    if (path == nullptr || rec == nullptr || name == nullptr || depth == nullptr) {
        return refuse_path(-EINVAL);
    }
    path_parts parts;
    const int split = split_path(path, &parts);
    heap_ptr<char *> components = zeroed_records<char *>(parts.parents + 1);
    if (components == nullptr || split < 0) {
        return refuse_path(components == nullptr ? -ENOMEM : split);
    }
    char *component = parts.first;
    for (u32 i = 0; i < parts.parents; i++) {
        components.get()[i] = component;
        component = next_component(component);
    }
    rec->path = components.release();
    rec->depth = static_cast<int>(parts.parents);
    rec->name = parts.name;
    *depth = rec->depth;
    *name = rec->name;
    return 0;
}

int fat_path_lookup(char *path, oentry **dir, char **name) {
    if (path == nullptr || dir == nullptr) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    if (sv->root_dir == nullptr || sv->current_dir == nullptr) {
        REPORT("current directory isn't setup\n");
        return -EFAULT;
    }
    oentry *start = path[0] == '/' ? sv->root_dir : sv->current_dir;
    path_parts parts;
    const int split = name != nullptr ? split_path(path, &parts) : -EINVAL;
    if (split < 0) {
        refuse_path(split);
        REPORT("Check here!\n\n");
        return split;
    }
    *name = parts.name;
    if (verify_valid_name(parts.name) < 0) {
        REPORT("Check here!\n\n");
        report_bare("wrong file name: %s\n", parts.name);
        return -EINVAL;
    }
    return find_directory(start, parts, dir);
}

void free_lookup_result(oentry *dir) {
    if (dir != sv->current_dir && dir != sv->root_dir) {
        free_oentry(dir);
    }
}

int fat_get_name(const char *path, char *out) {
    if (path == nullptr) {
        REPORT("Check here!\n\n");
        return -EINVAL;
    }
    std::size_t length = std::strlen(path);
    if (length > MAX_PATH_LENGTH) {
        REPORT("Check here!\n\n");
        return -ENAMETOOLONG;
    }
    // A path of maximum length is terminated by the next byte of the buffer, which is never
    // written.
    std::memset(out, 0, MAX_PATH_LENGTH);
    std::memcpy(out, path, length);
    while (length > 0 && out[length - 1] == '/') {
        out[--length] = '\0';
    }
    return static_cast<int>(length);
}

} // namespace fat
