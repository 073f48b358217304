#include "qvol/host_tree.h"

#include "qvol/error.h"
#include "qvol/host.h"

#include <algorithm>
#include <memory>
#include <unordered_map>

#include <dirent.h>
#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qvol {

namespace {

constexpr u64 MAX_FILE_BYTES = 0xFFFFFFFF;
constexpr u32 DOT_SLOTS = 2;

struct close_directory {
    void operator()(DIR *directory) const {
        closedir(directory);
    }
};

struct stat status_in(int directory, const char *name, const std::string &path) {
    struct stat status {};
    if (fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        throw system_failure("stat " + shown_bytes(path));
    }
    return status;
}

struct directory_item {
    std::string name;
    struct stat status;
};

std::vector<std::string> sorted_names(DIR *listing, const std::string &path) {
    std::vector<std::string> names;
    errno = 0;
    for (const dirent *item = readdir(listing); item != nullptr; item = readdir(listing)) {
        const std::string_view name = item->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
        errno = 0;
    }
    if (errno != 0) {
        throw system_failure("read directory " + shown_bytes(path));
    }
    std::sort(names.begin(), names.end());
    return names;
}

// By name. The directory is closed again, whatever the depth of the tree below it.
std::vector<directory_item> items_of(const std::string &path) {
    const std::unique_ptr<DIR, close_directory> listing(opendir(path.c_str()));
    if (listing == nullptr) {
        throw system_failure("read directory " + shown_bytes(path));
    }
    std::vector<std::string> names = sorted_names(listing.get(), path);
    std::vector<directory_item> items;
    items.reserve(names.size());
    for (std::string &name : names) {
        const struct stat status =
            status_in(dirfd(listing.get()), name.c_str(), host_path_below(path, name));
        items.push_back({std::move(name), status});
    }
    return items;
}

bool is_importable(mode_t mode) {
    return S_ISREG(mode) || S_ISDIR(mode) || S_ISLNK(mode);
}

std::string read_link(const std::string &path) {
    std::string target(MAX_TARGET_BYTES + 1, '\0');
    const ssize_t length = readlink(path.c_str(), target.data(), target.size());
    if (length < 0) {
        throw system_failure("read the link " + shown_bytes(path));
    }
    target.resize(static_cast<std::size_t>(length));
    return target;
}

u64 clusters_of_bytes(u64 bytes, u32 cluster_bytes) {
    return (bytes + cluster_bytes - 1) / cluster_bytes;
}

} // namespace

void host_scan::add_problem(const std::string &path, const std::string &why) {
    problems_.push_back(shown_bytes(path) + ": " + why);
}

// Sets the name and the slots it takes; adds a problem if the name is invalid.
void host_scan::set_name(host_node *node, const std::string &name) {
    const std::optional<std::u16string> units = names_.to_units(name);
    const std::optional<std::string> problem =
        units ? name_problem(*units) : "not valid in the name encoding";
    if (problem) {
        add_problem(node->path, "invalid name: " + *problem);
    } else if (!allows_long_names_ && !cased_short_name_of(*units)) {
        add_problem(node->path, "long names are off and this name does not fit 8.3 with one case "
                                "for each half");
    }
    node->name = units.value_or(u"");
    node->slots = allows_long_names_ ? slots_of_name(node->name) : 1;
}

host_node host_scan::scan(const std::string &path, const std::string &name) {
    return scan(path, name, status_in(AT_FDCWD, path.c_str(), path));
}

host_node host_scan::scan(const std::string &path, const std::string &name,
                          const struct stat &status) {
    host_node node;
    node.path = path;
    node.modified = status.st_mtime;
    set_name(&node, name);
    if (S_ISDIR(status.st_mode)) {
        node.type = kind::DIRECTORY;
        node.children = scan_children(path);
    } else if (S_ISLNK(status.st_mode)) {
        node.type = kind::LINK;
        node.target = read_link(path);
        node.size = node.target.size();
        if (node.size > MAX_TARGET_BYTES) {
            add_problem(path,
                        fmt::format("the link target is longer than {} bytes", MAX_TARGET_BYTES));
        }
    } else if (S_ISREG(status.st_mode)) {
        node.size = static_cast<u64>(status.st_size);
        if (node.size > MAX_FILE_BYTES) {
            add_problem(path, "too large: files on a FAT volume are smaller than 4 GiB");
        }
    } else {
        add_problem(path, "neither file, directory nor link; --skip-special leaves it out");
    }
    return node;
}

std::vector<host_node> host_scan::scan_children(const std::string &path) {
    const std::vector<directory_item> items = items_of(path);
    std::vector<host_node> children;
    children.reserve(items.size());
    for (const directory_item &item : items) {
        if (!skips_special_ || is_importable(item.status.st_mode)) {
            children.push_back(scan(host_path_below(path, item.name), item.name, item.status));
        }
    }
    check_names(children);
    return children;
}

void host_scan::check_names(const std::vector<host_node> &siblings) {
    std::unordered_map<std::u16string, const host_node *> seen;
    for (const host_node &node : siblings) {
        const auto [first, is_new] = seen.try_emplace(fold_case(node.name), &node);
        if (!is_new && !node.name.empty()) {
            add_problem(node.path,
                        "same name as " + shown_bytes(first->second->path) + " if case is ignored");
        }
    }
}

tree_totals totals_of(const std::vector<host_node> &nodes) {
    tree_totals totals;
    for (const host_node &node : nodes) {
        switch (node.type) {
        case kind::DIRECTORY: {
            const tree_totals below = totals_of(node.children);
            totals.files += below.files;
            totals.directories += below.directories + 1;
            totals.links += below.links;
            totals.bytes += below.bytes;
            break;
        }
        case kind::LINK:
            totals.links++;
            break;
        default:
            totals.files++;
            totals.bytes += node.size;
        }
    }
    return totals;
}

u64 slots_needed(const std::vector<host_node> &nodes) {
    u64 slots = 0;
    for (const host_node &node : nodes) {
        slots += node.slots;
    }
    return slots;
}

namespace {

// Visits the size in bytes of every file, link and directory.
template <typename Visit>
void visit_sizes(const std::vector<host_node> &nodes, Visit visit) {
    for (const host_node &node : nodes) {
        if (node.type == kind::DIRECTORY) {
            visit((DOT_SLOTS + slots_needed(node.children)) * core::DENTRY_SIZE);
            visit_sizes(node.children, visit);
        } else {
            visit(node.size);
        }
    }
}

} // namespace

u64 clusters_needed(const std::vector<host_node> &nodes, u32 cluster_bytes) {
    u64 clusters = 0;
    visit_sizes(nodes, [&](u64 bytes) { clusters += clusters_of_bytes(bytes, cluster_bytes); });
    return clusters;
}

cluster_counts::cluster_counts(const std::vector<host_node> &nodes) {
    visit_sizes(nodes, [this](u64 bytes) {
        for (std::size_t i = 0; i < counts_.size(); i++) {
            counts_[i] += clusters_of_bytes(bytes, SMALLEST << i);
        }
    });
}

u64 cluster_counts::of(u32 cluster_bytes) const {
    return counts_.at(static_cast<std::size_t>(std::countr_zero(cluster_bytes / SMALLEST)));
}

} // namespace qvol
