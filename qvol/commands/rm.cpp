// qvol rm: removes entries.

#include "qvol/commands/change.h"
#include "qvol/commands/commands.h"
#include "qvol/tree_walk.h"

#include <fmt/core.h>

namespace qvol {

namespace {

constexpr const char *REMOVE = "remove";

struct rm_options {
    std::vector<std::string> paths;
    bool is_recursive = false;
};

// Collects the clusters to free. Throws error for a cluster of two chains: freeing it could damage
// a file that is not removed.
class removal {
public:
    // Clusters of the root and of `parent`, the directory of the removed entry, must not be freed.
    removal(volume &vol, const directory &parent)
        : vol_(vol), is_claimed_(vol.fat().last_cluster() + 1) {
        exclude(vol.root());
        exclude(parent);
    }

    // Adds the chains of an entry and of everything below it.
    void add_tree(const resolved_path &top) {
        add_context(vol_, REMOVE, top.path, [&] { add_chain(*top.found); });
        if (!top.found->is_directory() || top.found->start() == 0) {
            return;
        }
        tree_visitor visitor;
        visitor.visit = [&](const name_path &path, const entry &found, bool) {
            add_context(vol_, REMOVE, path, [&] { add_chain(found); });
            return true;
        };
        walk_tree(vol_, top.path, open_directory(vol_, top), visitor);
    }

    [[nodiscard]] const std::vector<u32> &clusters() const {
        return clusters_;
    }

private:
    void exclude(const directory &dir) {
        for (const u32 cluster : dir.clusters()) {
            is_claimed_[cluster] = true;
        }
    }

    void add_chain(const entry &found) {
        if (found.start() == 0) {
            return;
        }
        for (const u32 cluster : vol_.fat().chain(found.start())) {
            if (is_claimed_[cluster]) {
                throw error(fmt::format(
                    "shares cluster {} with another entry; repair the volume first", cluster));
            }
            is_claimed_[cluster] = true;
            clusters_.push_back(cluster);
        }
    }

    volume &vol_;
    std::vector<bool> is_claimed_; // by cluster
    std::vector<u32> clusters_;
};

void check_removal(volume &vol, const resolved_path &where, bool is_recursive) {
    if (where.is_root()) {
        fail(vol, REMOVE, where.path, "is the root directory");
    }
    if (where.found->is_directory() && !is_recursive && where.found->start() != 0 &&
        !open_directory(vol, where).is_empty()) {
        fail(vol, REMOVE, where.path, "directory not empty; -r removes it with everything in it");
    }
}

// True if the path exists. Its directory may have been removed before.
bool exists(volume &vol, const name_path &path) {
    try {
        return find_path(vol, path).found.has_value();
    } catch (const error &) {
        return false;
    }
}

void remove_one(volume &vol, resolved_path where) {
    removal removed(vol, where.parent);
    removed.add_tree(where);
    where.parent.remove(*where.found);
    vol.fat().release(removed.clusters());
    vol.commit_removals({&where.parent});
}

// Checks all paths before it removes the first. A path that was removed with another is not an
// error.
int run_rm(const common_options &common, const rm_options &options) {
    return with_volume(common, access::WRITE, [&](volume &vol) {
        for (const std::string &path : options.paths) {
            check_removal(vol, resolve(vol, path), options.is_recursive);
        }
        json removed = json::array();
        for (const std::string &path : options.paths) {
            const name_path spelt = parse_path(vol.names(), path);
            if (exists(vol, spelt)) {
                remove_one(vol, find_path(vol, spelt));
            }
            removed.push_back(json_path(spelt));
        }
        print_paths(common.out, "removed", std::move(removed));
        return EXIT_DONE;
    });
}

} // namespace

void add_rm(command_line *commands) {
    const auto [rm, options] = commands->add({"rm", "Remove files, links and directories",
                                              "  qvol rm flash.img /notes.txt /empty-directory\n"
                                              "  qvol rm -r flash.img /photos"},
                                             run_rm);
    rm.list("PATH", &options->paths, "What to remove").required();
    rm.flag("-r,--recursive", &options->is_recursive, "Remove directories with everything in them");
}

} // namespace qvol
